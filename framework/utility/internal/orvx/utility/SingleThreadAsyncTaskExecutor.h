#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>

namespace orvx::utility {

/// One worker thread that runs tasks one after another, in the order in which they were added.
///
/// Thread-safety: every operation may be called from any thread, also from inside a task; start()
/// and stopAndClear() not by two threads at once.
/// Tasks run, and are destroyed, on the worker, or, when they are dropped, on the thread that stops
/// or destroys the executor; never under the executor's own lock.
///
/// - A task added before start() or after stopAndClear() waits for the next start(), or is dropped
///   with the executor.
/// - A task that throws: the error handler, if there is one, is called on the worker with what() of
///   a std::exception, or "unknown exception"; the next task runs. What the error handler itself
///   throws is dropped.
/// - In a forked child there is no worker: stopping and destroying do nothing there, and leak.
class SingleThreadAsyncTaskExecutor {
  public:
    /// What is to be done; called once, on the worker.
    using Task = std::function<void()>;
    /// Tasks in the order in which they are to run.
    using Tasks = std::list<Task>;
    /// Takes the text of an exception that left a task.
    using ErrorHandler = std::function<void(const std::string&)>;

    /// `threadName` is shown by the system, cut to 15 bytes. The error handler may be empty.
    SingleThreadAsyncTaskExecutor(std::string threadName, ErrorHandler errorHandler);
    /// Stops and drops what is queued. Inside a task of its own it does not wait for that task.
    ~SingleThreadAsyncTaskExecutor();
    SingleThreadAsyncTaskExecutor(const SingleThreadAsyncTaskExecutor&) = delete;
    SingleThreadAsyncTaskExecutor& operator=(const SingleThreadAsyncTaskExecutor&) = delete;

    /// Starts the worker; does nothing while it runs.
    /// Throws std::system_error when the thread cannot be made.
    void start();

    /// Queues a task; never runs it before it returns, never waits. Throws std::bad_alloc only.
    void add(Task task);
    /// Queues these, in their order and with nothing in between. Needs no memory: who must not fail
    /// half-way makes the list first.
    void add(Tasks&& tasks) noexcept;

    /// Drops the queued tasks, waits for the one that is running, ends the worker. Called from
    /// inside a task it does not wait: that task is the last one. Does nothing when stopped.
    void stopAndClear();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orvx::utility
