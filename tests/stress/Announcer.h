#pragma once

#include "ClientTestAccess.h"
#include "Ledger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/utility/ILoggerFactory.h>
#include <orvx/utility/Mutex.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace orvx::stress {

/// What a client's log says of the checks that ended. Thread-safe.
class CheckLog {
  public:
    void note(const std::string& line) ORVX_EXCLUDES(mutex_);

    /// Time-outs; and answers that were ignored, each of which ended a check.
    std::size_t timeOuts() const { return timeOuts_; }
    std::size_t ignored() const { return ignored_; }
    /// The registrations whose check ended because it was due during a withdrawal.
    std::set<std::uint64_t> endedByWithdrawal() const ORVX_EXCLUDES(mutex_);

  private:
    std::atomic<std::size_t> timeOuts_{0};
    std::atomic<std::size_t> ignored_{0};
    mutable utility::Mutex mutex_;
    std::set<std::uint64_t> endedByWithdrawal_ ORVX_GUARDED_BY(mutex_);
};

/// A context and its client, from its beginning to its stop. For one thread at a time, but for the
/// client's own operations.
class Announcer {
  public:
    struct Options {
        std::chrono::milliseconds headTimeout;
        std::uint16_t maxRetryCount = 0;
        std::size_t connections = 16;
        bool resilience = false;
        /// How long a withdrawal waits for its answer, with resilience.
        std::chrono::milliseconds unregisterTimeout{30'000};
    };
    static constexpr std::chrono::seconds kCheckInterval{1};
    static constexpr std::chrono::milliseconds kRequestTimeout{1000};
    static constexpr std::chrono::milliseconds kRetryInterval{20};

    Announcer(Ledger& ledger, const Options& options);

    IOrvServiceRegistryClient& client() { return *context_.getServiceRegistryClient(); }
    const StopMark& mark() const { return mark_; }
    const CheckLog& log() const { return *log_; }
    void replaceListener();

    /// The registrations it holds: their descriptions by request id.
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> held();
    std::size_t heldCount();

    /// With resilience.
    std::vector<serviceregistryclient::RegistrationStatus> registrations() const {
        return context_.getRegistrations();
    }

    /// How long that took.
    std::chrono::milliseconds stop();
    /// Stops the client, which keeps its registrations until resume(). How long that took.
    std::chrono::milliseconds pause();
    void resume();

  private:
    serviceregistryclient::ClientTestAccess access();
    std::chrono::milliseconds stop(const std::function<void()>& end);

    Ledger& ledger_;
    const Options options_;
    const StopMark mark_ = std::make_shared<std::atomic<bool>>(false);
    const std::shared_ptr<CheckLog> log_ = std::make_shared<CheckLog>();
    serviceregistryclient::OrvServiceRegistryContext context_;
};

}  // namespace orvx::stress
