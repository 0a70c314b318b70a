#pragma once

#include <orvx/utility/Mutex.h>

#include <poll.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <utility>
#include <vector>

namespace orvx::announce {

/// Runs tasks on the thread that calls run(): when a descriptor is readable, when a timer is due,
/// or after post(). Posted tasks do not starve descriptors and timers, which are served every few
/// milliseconds.
/// Thread-safety: post() may be called from any thread, all other functions from the loop's thread.
class EventLoop {
  public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;
    /// Identifies a timer; 0: no timer.
    using Timer = unsigned long;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Calls `task` whenever `descriptor` is readable, for as long as the loop runs.
    void watch(int descriptor, Task task);
    Timer after(std::chrono::milliseconds delay, Task task);
    /// It is no error to cancel a timer that has run, or 0.
    void cancel(Timer timer);
    void post(Task task) ORVX_EXCLUDES(mutex_);

    /// Returns after the task that calls stop().
    void run();
    void stop() { stopped_ = true; }

  private:
    int timeout() const;
    void collectPosted() ORVX_EXCLUDES(mutex_);
    void runPosted();
    void runTimers();

    std::vector<pollfd> polled_;
    std::vector<Task> readable_;
    std::map<std::pair<Clock::time_point, Timer>, Task> timers_;
    std::deque<Task> tasks_;
    Timer lastTimer_ = 0;
    bool stopped_ = false;
    int wakeUp_;
    utility::Mutex mutex_;
    std::vector<Task> posted_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::announce
