#pragma once

#include "Longest.h"
#include "Pace.h"

#include <thread>

namespace orvx::stress {

/// Notices when this program does not run, because the machine is busy or stands still: a thread
/// waits in short steps. A stall is the time by which a step takes longer. Thread-safe.
class Stalls {
  public:
    Stalls();
    ~Stalls();

    /// The longest stall that ended after the time, or has not ended.
    milliseconds longest(Longest::Time since = Longest::Time::min()) const ORVX_EXCLUDES(mutex_);

  private:
    void watch() ORVX_EXCLUDES(mutex_);

    Pace pace_;
    mutable utility::Mutex mutex_;
    Longest stalls_ ORVX_GUARDED_BY(mutex_);
    /// The time at which the current step should end.
    Longest::Time due_ ORVX_GUARDED_BY(mutex_) = Longest::Time::max();
    std::thread thread_;
};

}  // namespace orvx::stress
