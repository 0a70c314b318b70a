// The executor: a task thread on which every task is due at once, so that they run in the order in
// which they were added.
// Entered by any thread; the lock is the task thread's.

#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include "TaskThread.h"

#include <utility>

namespace orvx::utility {

struct SingleThreadAsyncTaskExecutor::State : TaskThread {
    State(std::string name, ErrorHandler errorHandler)
        : TaskThread(WhileStopped::KeepTasks, std::move(errorHandler)),
          threadName(std::move(name)) {}

    const std::string threadName;
};

SingleThreadAsyncTaskExecutor::SingleThreadAsyncTaskExecutor(std::string threadName,
                                                             ErrorHandler errorHandler)
    : state_(std::make_shared<State>(std::move(threadName), std::move(errorHandler))) {}

SingleThreadAsyncTaskExecutor::~SingleThreadAsyncTaskExecutor() {
    TaskThread::end(state_);
}

void SingleThreadAsyncTaskExecutor::start() {
    state_->start(state_->threadName);
}

void SingleThreadAsyncTaskExecutor::add(Task task) {
    state_->add(TaskThread::Clock::time_point::min(), std::move(task));
}

void SingleThreadAsyncTaskExecutor::stopAndClear() {
    state_->stop();
}

}  // namespace orvx::utility
