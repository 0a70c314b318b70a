// The executor: a task thread without due times.
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
    Tasks tasks;
    tasks.push_back(std::move(task));
    add(std::move(tasks));
}

void SingleThreadAsyncTaskExecutor::add(Tasks&& tasks) noexcept {
    state_->add(std::move(tasks));
}

void SingleThreadAsyncTaskExecutor::stopAndClear() {
    state_->stop();
}

}  // namespace orvx::utility
