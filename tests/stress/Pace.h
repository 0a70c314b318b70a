#pragma once

#include <orvx/utility/Mutex.h>

#include <chrono>
#include <condition_variable>
#include <random>

namespace orvx::stress {

using Random = std::mt19937_64;
using std::chrono::milliseconds;

/// Waits that end early when the program ends. Thread-safe.
class Pace {
  public:
    /// Returns false if the program has ended.
    bool wait(milliseconds duration) ORVX_EXCLUDES(mutex_);
    void end() ORVX_EXCLUDES(mutex_);

  private:
    utility::Mutex mutex_;
    std::condition_variable changed_;
    bool hasEnded_ ORVX_GUARDED_BY(mutex_) = false;
};

}  // namespace orvx::stress
