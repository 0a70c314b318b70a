#pragma once

#include <algorithm>
#include <chrono>

namespace orvx::registry {

/// The pauses between repeated attempts: one second, then twice the previous pause, up to one
/// minute.
///
/// Thread-safety: none.
class GrowingPause {
  public:
    std::chrono::seconds next() {
        const auto pause = pause_;
        pause_ = std::min(2 * pause_, kLongest);
        return pause;
    }
    /// To be called after a success.
    void reset() { pause_ = kShortest; }

  private:
    static constexpr std::chrono::seconds kShortest{1};
    static constexpr std::chrono::seconds kLongest{60};

    std::chrono::seconds pause_ = kShortest;
};

}  // namespace orvx::registry
