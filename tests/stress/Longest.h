#pragma once

#include <algorithm>
#include <chrono>
#include <deque>
#include <utility>

namespace orvx::stress {

/// Of durations, the longest one that ended after a time. Keeps only those that may be asked for.
class Longest {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::milliseconds;

    /// `end`: not before that of the previous one.
    void note(Time end, Duration duration) {
        while (!falling_.empty() && falling_.back().second <= duration) {
            falling_.pop_back();
        }
        falling_.emplace_back(end, duration);
    }

    Duration since(Time begin) const {
        const auto first =
            std::lower_bound(falling_.begin(), falling_.end(), begin,
                             [](const auto& one, Time time) { return one.first < time; });
        return first == falling_.end() ? Duration::zero() : first->second;
    }

  private:
    std::deque<std::pair<Time, Duration>> falling_;  // each one longer than all after it
};

}  // namespace orvx::stress
