#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>

namespace orvx::utility {

/// One worker thread that runs tasks one after another, in the order in which they were added.
///
/// Thread-safety: every operation may be called from any thread, also from inside a task; start()
/// and stopAndClear() must not be called by two threads at once.
/// Tasks run and are destroyed on the worker. Dropped tasks are destroyed on the thread that stops
/// or destroys the executor. Neither happens under the executor's own lock.
///
/// - A task that is added before start() or after stopAndClear() waits for the next start(), or is
///   dropped with the executor.
/// - If a task throws, the error handler, if there is one, is called on the worker with what() of a
///   std::exception, or with "unknown exception"; then the next task runs. Exceptions of the error
///   handler are dropped.
/// - In a forked child there is no worker: stopping and destroying do nothing and leak.
class SingleThreadAsyncTaskExecutor {
  public:
    /// A task; called at most once, on the worker.
    using Task = std::function<void()>;
    /// Tasks in the order in which they run.
    using Tasks = std::list<Task>;
    /// Receives the text of an exception that left a task.
    using ErrorHandler = std::function<void(const std::string&)>;

    /// The system shows the first 15 bytes of `threadName`. The error handler may be empty.
    SingleThreadAsyncTaskExecutor(std::string threadName, ErrorHandler errorHandler);
    /// Stops the worker and drops the queued tasks. Inside one of its tasks it does not wait for
    /// that task.
    ~SingleThreadAsyncTaskExecutor();
    SingleThreadAsyncTaskExecutor(const SingleThreadAsyncTaskExecutor&) = delete;
    SingleThreadAsyncTaskExecutor& operator=(const SingleThreadAsyncTaskExecutor&) = delete;

    /// Starts the worker; does nothing while it runs.
    /// Throws std::system_error if the thread cannot be made.
    void start();

    /// Queues a task. Never waits and never runs the task itself. Throws std::bad_alloc only.
    void add(Task task);
    /// Queues tasks in their order, without other tasks in between. Does not allocate: a caller
    /// that must not fail half-way makes the list first.
    void add(Tasks&& tasks) noexcept;

    /// Drops the queued tasks, waits for the running task and ends the worker. Called from inside a
    /// task, it does not wait: that task is the last one. Does nothing when stopped.
    void stopAndClear();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orvx::utility
