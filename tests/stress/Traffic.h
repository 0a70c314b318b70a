#pragma once

#include <orvx/utility/Mutex.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "FaultProxy.h"
#include "Http.h"
#include "Longest.h"

namespace orvx::stress {

/// The requests of clients and the answers of a registry, as a proxy's taps observe them.
/// Thread-safe. Must outlive its taps.
class Traffic {
  public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    explicit Traffic(std::function<Time()> now = Clock::now) : now_(std::move(now)) {}

    FaultProxy::TapMaker tapMaker();

    /// A user has called an operation that needs a PUT to this path.
    void expectPuts(const std::string& path) ORVX_EXCLUDES(mutex_);
    /// A client with resilience has started again: it checks all its entries. Its paths are `owner`
    /// and a number.
    void expectChecks(const std::string& owner) ORVX_EXCLUDES(mutex_);

    std::size_t requests() const ORVX_EXCLUDES(mutex_);
    /// Requests that this client must not send, with the reason.
    std::vector<std::string> malformed() const ORVX_EXCLUDES(mutex_);
    std::size_t checksSince(const std::string& uuid, Time begin) const ORVX_EXCLUDES(mutex_);
    /// The longest time from a check to its answer, or to the end of its connection, that ended
    /// after the time or has not ended.
    std::chrono::milliseconds longestCheck(Time since) const ORVX_EXCLUDES(mutex_);
    /// Whether the registry answered a check with 404 in that time.
    bool wasMissing(const std::string& uuid, Time begin, Time end) const ORVX_EXCLUDES(mutex_);
    /// Whether the last PUT of this description to this path reached the registry after the client
    /// had abandoned it: the client cannot know that the registry has processed it.
    bool cameLate(const std::string& path, const std::string& description) const
        ORVX_EXCLUDES(mutex_);

    /// The maximum number of requests for one target in one second, and the number of seconds with
    /// more than the rules allow.
    struct Load {
        std::size_t most = 0;
        std::size_t tooMany = 0;

        void add(std::size_t requests, std::size_t allowed) {
            most = std::max(most, requests);
            tooMany += requests > allowed ? 1 : 0;
        }
    };
    /// `rows` is the permitted number of sequences of attempts with a back-off, in addition to the
    /// requests of users.
    Load puts(std::size_t rows = 1) const ORVX_EXCLUDES(mutex_);
    Load checks() const ORVX_EXCLUDES(mutex_);
    /// With resilience.
    Load checksAndRecoveries() const ORVX_EXCLUDES(mutex_);
    std::size_t deletes() const ORVX_EXCLUDES(mutex_);
    /// The number of requests with this method that an HTTP client may have repeated.
    std::size_t resends(const std::string& method) const ORVX_EXCLUDES(mutex_);

  private:
    class Tap;

    struct Second {
        std::size_t requests = 0;
        std::size_t resends = 0;
        std::size_t registrations = 0;
        std::size_t starts = 0;
    };
    using Seconds = std::map<std::int64_t, Second>;
    struct Target {
        Seconds seconds;
        std::vector<Time> requests;
        std::vector<Time> missing;
    };

    void note(const Tap& tap, const testing::Request& request) ORVX_EXCLUDES(mutex_);
    void noteAnswer(const Tap& tap) ORVX_EXCLUDES(mutex_);
    void noteArrival(const testing::Request& put, bool isLate) ORVX_EXCLUDES(mutex_);
    void noteMalformed(std::string what) ORVX_EXCLUDES(mutex_);
    void noteMissing(const std::string& method, const std::string& target) ORVX_EXCLUDES(mutex_);
    void noteEntry(const std::string& path, const std::string& target) ORVX_EXCLUDES(mutex_);
    void allowResend(const std::string& method, const std::string& target) ORVX_EXCLUDES(mutex_);
    std::size_t allowedChecks(const std::string& entry, std::int64_t second) const
        ORVX_REQUIRES(mutex_);
    static Second around(const Seconds& seconds, std::int64_t second);
    template <typename Allowed>
    Load load(const std::string& method, const Allowed& allowed) const ORVX_EXCLUDES(mutex_);

    const std::function<Time()> now_;
    mutable utility::Mutex mutex_;
    std::map<std::string, std::map<std::string, Target>> methods_ ORVX_GUARDED_BY(mutex_);
    /// The path of each entry, by the target of its checks.
    std::map<std::string, std::string> paths_ ORVX_GUARDED_BY(mutex_);
    /// The starts of clients by owner.
    std::map<std::string, Seconds> starts_ ORVX_GUARDED_BY(mutex_);
    std::vector<std::string> malformed_ ORVX_GUARDED_BY(mutex_);
    /// The begins of the checks that are not answered.
    std::map<const Tap*, Time> unanswered_ ORVX_GUARDED_BY(mutex_);
    Longest answered_ ORVX_GUARDED_BY(mutex_);
    /// Paths and descriptions.
    std::set<std::pair<std::string, std::string>> late_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::stress
