// The loop of the executor and of the timer.
// Entered by any thread; work() runs on the worker. `mutex_` guards the tasks and the flags. It is
// held while the worker is started, so that no task runs before start() is complete. No task, error
// handler or destructor of a task runs under it.

#include "TaskThread.h"

#include <algorithm>
#include <exception>
#include <thread>
#include <tuple>
#include <utility>

namespace orvx::utility {

TaskThread::TaskThread(WhileStopped whileStopped, ErrorHandler errorHandler)
    : whileStopped_(whileStopped), errorHandler_(std::move(errorHandler)) {}

void TaskThread::start(const std::string& name) {
    MutexLock lock(mutex_);
    if (!working_) {
        worker_.start(name, [self = shared_from_this()] { self->work(); });
        working_ = true;
    }
    running_ = true;
}

void TaskThread::add(Clock::time_point due, Task task) {
    // A task that is refused, or for which there is no memory, is destroyed after unlocking.
    Entry entry{due, 0, std::move(task)};
    bool mustWake = false;
    {
        MutexLock lock(mutex_);
        if (!takesTasks()) {
            return;
        }
        const auto number = added_++;
        entry.number = number;
        if (inOrder_.empty() || inOrder_.back().due <= due) {
            inOrder_.push_back(std::move(entry));
        } else {
            heap_.push_back(std::move(entry));
            std::push_heap(heap_.begin(), heap_.end(), isLater);
        }
        mustWake = sleeping_ && first()->number == number;
    }
    if (mustWake) {
        changed_.notify_one();
    }
}

void TaskThread::add(Tasks&& tasks) noexcept {
    // Refused tasks stay in the caller's list.
    bool mustWake = false;
    {
        MutexLock lock(mutex_);
        if (takesTasks()) {
            mustWake = sleeping_ && queue_.empty();
            queue_.splice(queue_.end(), tasks);
        }
    }
    if (mustWake) {
        changed_.notify_one();
    }
}

bool TaskThread::takesTasks() const {
    return !ended_ && (running_ || whileStopped_ == WhileStopped::KeepTasks);
}

bool TaskThread::isRunning() const {
    MutexLock lock(mutex_);
    return running_;
}

void TaskThread::stop() {
    halt(false);
}

void TaskThread::end(const std::shared_ptr<TaskThread>& self) {
    if (self->worker_.isInForkedChild()) {
        self->self_ = self;
        leakInForkedChild(self.get());
    } else {
        self->halt(true);
    }
}

void TaskThread::halt(bool isFinal) {
    if (worker_.isInForkedChild()) {
        return;
    }
    std::size_t droppedInOrder = 0;
    std::vector<Entry> droppedHeap;
    Tasks droppedQueue;
    {
        MutexLock lock(mutex_);
        if (running_ || isFinal) {
            droppedInOrder = inOrder_.size();
            droppedHeap.swap(heap_);
            droppedQueue.swap(queue_);
        }
        running_ = false;
        ended_ = ended_ || isFinal;
        changed_.notify_one();
    }
    // Dropped one by one, because making an empty deque for a swap allocates memory.
    while (droppedInOrder-- > 0) {
        Task dropped;
        MutexLock lock(mutex_);
        if (inOrder_.empty()) {
            break;  // the destructor of a task has ended this object, or started it again
        }
        dropped.swap(inOrder_.front().task);
        inOrder_.pop_front();
    }
    droppedHeap.clear();
    droppedQueue.clear();
    if (!worker_.isCurrent()) {
        worker_.end();
    }
}

void TaskThread::work() {
    MutexLock lock(mutex_);
    bool hasYielded = false;
    while (running_) {
        if (!isOneDue()) {
            // Other threads run first: tasks that they add before this thread sleeps cost no
            // wake-up.
            if (std::exchange(hasYielded, !hasYielded)) {
                wait(lock);
            } else {
                lock.unlock();
                std::this_thread::yield();
                lock.lock();
            }
            continue;
        }
        Task task = takeFirst();
        lock.unlock();
        run(task);
        lock.lock();
    }
    working_ = false;
}

bool TaskThread::isLater(const Entry& one, const Entry& other) {
    return std::tie(one.due, one.number) > std::tie(other.due, other.number);
}

/// Null when there is none.
const TaskThread::Entry* TaskThread::first() const {
    if (inOrder_.empty() || heap_.empty()) {
        return !inOrder_.empty() ? &inOrder_.front() : !heap_.empty() ? &heap_.front() : nullptr;
    }
    return isLater(inOrder_.front(), heap_.front()) ? &heap_.front() : &inOrder_.front();
}

bool TaskThread::isOneDue() const {
    const Entry* const next = first();
    return !queue_.empty() || (next != nullptr && next->due <= Clock::now());
}

void TaskThread::wait(MutexLock& lock) {
    sleeping_ = true;
    const Entry* const next = first();
    if (next == nullptr) {
        changed_.wait(lock.native());
        sleeping_ = false;
        return;
    }
    // The largest due times exceed the longest wait of some systems. The thread wakes up at whole
    // milliseconds only, so that tasks that fall due close together share one wake-up.
    const Clock::time_point until = std::min(next->due, Clock::now() + std::chrono::hours(24));
    changed_.wait_until(lock.native(), std::chrono::ceil<std::chrono::milliseconds>(until));
    sleeping_ = false;
}

TaskThread::Task TaskThread::takeFirst() {
    if (!queue_.empty()) {
        Task first = std::move(queue_.front());
        queue_.pop_front();
        return first;
    }
    Task task;
    if (!inOrder_.empty() && first() == &inOrder_.front()) {
        task = std::move(inOrder_.front().task);
        inOrder_.pop_front();
    } else {
        std::pop_heap(heap_.begin(), heap_.end(), isLater);
        task = std::move(heap_.back().task);
        heap_.pop_back();
    }
    return task;
}

void TaskThread::run(Task& task) const {
    try {
        task();
    } catch (const std::exception& error) {
        report(error.what());
    } catch (...) {
        report("unknown exception");
    }
    task = nullptr;
}

void TaskThread::report(const char* error) const {
    try {
        if (errorHandler_) {
            errorHandler_(error);
        }
    } catch (...) {
        // There is no one else to report to.
    }
}

}  // namespace orvx::utility
