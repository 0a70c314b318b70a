// The timer: a task thread with due times, which are computed from delays here.
// Entered by any thread; the lock is the task thread's.

#include <orvx/utility/QueuedTimer.h>

#include "TaskThread.h"

#include <algorithm>
#include <utility>

namespace orvx::utility {

namespace {

using Clock = TaskThread::Clock;
using std::chrono::milliseconds;

/// The due time: not before now, and not beyond the clock's maximum.
Clock::time_point dueAfter(milliseconds delay) {
    const auto now = Clock::now();
    const auto longest = std::chrono::duration_cast<milliseconds>(Clock::time_point::max() - now);
    return now + std::clamp(delay, milliseconds::zero(), longest);
}

}  // namespace

struct QueuedTimer::State : TaskThread {
    State() : TaskThread(WhileStopped::DropTasks, ErrorHandler()) {}
};

QueuedTimer::QueuedTimer() : state_(std::make_shared<State>()) {}

QueuedTimer::~QueuedTimer() {
    TaskThread::end(state_);
}

void QueuedTimer::start(const std::string& name) {
    state_->start(name);
}

void QueuedTimer::addTask(milliseconds delay, Task task) {
    state_->add(dueAfter(delay), std::move(task));
}

milliseconds QueuedTimer::now() const {
    return std::chrono::floor<milliseconds>(Clock::now().time_since_epoch());
}

std::chrono::system_clock::time_point QueuedTimer::systemNow() const {
    return std::chrono::system_clock::now();
}

bool QueuedTimer::isRunning() const {
    return state_->isRunning();
}

void QueuedTimer::stop() {
    state_->stop();
}

}  // namespace orvx::utility
