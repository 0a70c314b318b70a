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

/// Counts the checks that ended, from a client's log. Thread-safe.
class CheckLog {
  public:
    void note(const std::string& line) ORVX_EXCLUDES(mutex_);

    /// The number of time-outs, and the number of ignored answers, each of which ended a check.
    std::size_t timeOuts() const { return timeOuts_; }
    std::size_t ignored() const { return ignored_; }
    /// The registrations whose check ended because it was due during a withdrawal.
    std::set<std::uint64_t> endedByWithdrawal() const ORVX_EXCLUDES(mutex_);
    /// Whether any check ended.
    bool hasEnd() const { return ignored() > 0 || !endedByWithdrawal().empty(); }

  private:
    std::atomic<std::size_t> timeOuts_{0};
    std::atomic<std::size_t> ignored_{0};
    mutable utility::Mutex mutex_;
    std::set<std::uint64_t> endedByWithdrawal_ ORVX_GUARDED_BY(mutex_);
};

/// A context and its client, from its start to its stop. Used by one thread at a time, except the
/// client's own operations.
class Announcer {
  public:
    struct Options {
        std::chrono::milliseconds headTimeout;
        std::uint16_t maxRetryCount = 0;
        std::size_t connections = 16;
        bool resilience = false;
        /// The time-out of a withdrawal, with resilience.
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

    /// The descriptions of the client's registrations by request id.
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> held();
    std::size_t heldCount();

    /// The status of each registration.
    std::vector<serviceregistryclient::RegistrationStatus> registrations() const {
        return context_.getRegistrations();
    }

    /// Returns the time that the stop took.
    std::chrono::milliseconds stop();
    /// Stops the client, which keeps its registrations until resume(). Returns the time that this
    /// took.
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
