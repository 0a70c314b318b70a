#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace orvx::utility {

/// One thread that runs tasks after a delay.
///
/// Thread-safety: every operation may be called from any thread, also from inside a task; start()
/// and stop() must not be called by two threads at once. addTask() may be called while the caller
/// holds a lock.
/// Tasks run on the timer's thread, one at a time, in the order of their due times. Tasks with
/// equal due times run in the order in which they were added. Tasks run and are destroyed without
/// the timer's own lock, and never inside addTask(). The clock is monotonic: changes of the
/// system's time have no effect.
///
/// - Adding or removing a task costs O(log n) for n pending tasks.
/// - A task that throws is dropped; the next one runs.
/// - In a forked child there is no thread: stopping and destroying do nothing and leak.
class QueuedTimer {
  public:
    /// A task; called at most once.
    using Task = std::function<void()>;

    QueuedTimer();
    /// Stops the timer. Inside one of its tasks it does not wait for that task.
    ~QueuedTimer();
    QueuedTimer(const QueuedTimer&) = delete;
    QueuedTimer& operator=(const QueuedTimer&) = delete;

    /// Starts the thread. The system shows the first 15 bytes of `name`. Does nothing while the
    /// thread runs. Throws std::system_error if the thread cannot be made.
    void start(const std::string& name);

    /// Runs `task` once, `delay` from now or up to a millisecond later, so that tasks that fall due
    /// close together share one wake-up. A negative delay means now; the largest delay practically
    /// never ends. The task is dropped while the timer is stopped. Throws std::bad_alloc only.
    void addTask(std::chrono::milliseconds delay, Task task);

    /// The time on the timer's clock, which has an arbitrary beginning. Also works while the timer
    /// is stopped.
    std::chrono::milliseconds now() const;
    /// The time on the system's clock, for human readers.
    std::chrono::system_clock::time_point systemNow() const;

    /// Whether the thread runs: after start(), before stop().
    bool isRunning() const;

    /// Drops the pending tasks, waits for the running task and ends the thread. Called from inside
    /// a task, it does not wait: that task is the last one. Does nothing when stopped.
    void stop();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orvx::utility
