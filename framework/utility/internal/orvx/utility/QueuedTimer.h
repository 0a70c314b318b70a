#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace orvx::utility {

/// One thread that runs tasks when their delay has passed.
///
/// Thread-safety: every operation may be called from any thread, also from inside a task; start()
/// and stop() not by two threads at once. addTask() may be called under a lock of the caller's.
/// Tasks run on the timer's thread, one at a time, in the order of their due times; tasks with
/// equal due times run in the order in which they were added. They run, and are destroyed, without
/// the timer's own lock, and never inside addTask(). The clock is monotonic: setting the system's
/// time changes nothing.
///
/// - Adding and taking out a task costs O(log n) for n pending ones.
/// - A task that throws is dropped; the next one runs.
/// - In a forked child there is no thread: stopping and destroying do nothing there, and leak.
class QueuedTimer {
  public:
    /// What is to be done; may be called once.
    using Task = std::function<void()>;

    QueuedTimer();
    /// Stops. Inside a task of its own it does not wait for that task.
    ~QueuedTimer();
    QueuedTimer(const QueuedTimer&) = delete;
    QueuedTimer& operator=(const QueuedTimer&) = delete;

    /// Starts the thread; `name` is shown by the system, cut to 15 bytes. Does nothing while it
    /// runs. Throws std::system_error when the thread cannot be made.
    void start(const std::string& name);

    /// Runs `task` once, `delay` from now or up to a millisecond later, so that tasks which fall
    /// due close together need one wake-up. A negative delay means now; the largest one means never
    /// in practice. Dropped while the timer is stopped. Throws std::bad_alloc only.
    void addTask(std::chrono::milliseconds delay, Task task);

    /// The time on the clock by which tasks fall due, from a beginning of its own. Also while the
    /// timer is stopped.
    std::chrono::milliseconds now() const;
    /// The system's clock, to tell people when something was or will be.
    std::chrono::system_clock::time_point systemNow() const;

    /// Whether there is a thread: after start(), before stop().
    bool isRunning() const;

    /// Drops the pending tasks, waits for the one that is running, ends the thread. Called from
    /// inside a task it does not wait: that task is the last one. Does nothing when stopped.
    void stop();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orvx::utility
