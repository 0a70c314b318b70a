// Threads: its own watches, any other one reads. mutex_ guards the stalls and is a leaf lock.

#include "Stalls.h"

#include <algorithm>

namespace orvx::stress {

using utility::MutexLock;
using Clock = std::chrono::steady_clock;
using std::chrono::duration_cast;

namespace {

constexpr milliseconds kStep{10};

}  // namespace

Stalls::Stalls() : thread_([this] { watch(); }) {}

Stalls::~Stalls() {
    pace_.end();
    thread_.join();
}

milliseconds Stalls::longest(Longest::Time since) const {
    const MutexLock lock(mutex_);
    const auto now = Clock::now();
    return now < due_ ? stalls_.since(since)
                      : std::max(stalls_.since(since), duration_cast<milliseconds>(now - due_));
}

void Stalls::watch() {
    bool isRunning = true;
    while (isRunning) {
        {
            const MutexLock lock(mutex_);
            due_ = Clock::now() + kStep;
        }
        isRunning = pace_.wait(kStep);
        const auto now = Clock::now();
        const MutexLock lock(mutex_);
        stalls_.note(now, duration_cast<milliseconds>(now - due_));
    }
}

}  // namespace orvx::stress
