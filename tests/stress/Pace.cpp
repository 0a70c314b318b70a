// Threads: any. The end is under mutex_, a leaf lock.

#include "Pace.h"

namespace orvx::stress {

using utility::MutexLock;

bool Pace::wait(milliseconds duration) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    MutexLock lock(mutex_);
    while (!hasEnded_ &&
           changed_.wait_until(lock.native(), deadline) == std::cv_status::no_timeout) {
    }
    return !hasEnded_;
}

void Pace::end() {
    const MutexLock lock(mutex_);
    hasEnded_ = true;
    changed_.notify_all();
}

}  // namespace orvx::stress
