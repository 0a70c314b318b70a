#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

namespace orvx::registry {

/// A steady clock that counts only the time in which the process is awake. Between two calls it
/// advances by at most `longestGap`. In a process that calls it more often, the rest of a longer
/// gap is time in which the process was stopped or blocked.
///
/// Thread-safety: none; one thread at a time. A copy advances independently.
class AwakeClock {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::steady_clock::duration;

    explicit AwakeClock(Duration longestGap,
                        std::function<Time()> clock = std::chrono::steady_clock::now)
        : longestGap_(longestGap), clock_(std::move(clock)) {}

    /// Advances the clock and returns its time.
    Time operator()() {
        const Time seen = clock_();
        time_ += std::min(seen - seen_, longestGap_);
        seen_ = seen;
        return time_;
    }

  private:
    Duration longestGap_;
    std::function<Time()> clock_;
    Time seen_ = clock_();
    Time time_ = seen_;
};

}  // namespace orvx::registry
