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

/// Runs tasks on one thread, the one that calls run(): when a descriptor is readable, when a time
/// has come, or when one was posted. However many are posted, descriptors and timers get their turn
/// every few milliseconds.
/// Thread-safety: post() may be called from any thread, everything else from the loop's.
class EventLoop {
  public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;
    /// Names a timer; 0 names none.
    using Timer = unsigned long;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Calls `task` whenever `descriptor` is readable, for as long as the loop runs.
    void watch(int descriptor, Task task);
    Timer after(std::chrono::milliseconds delay, Task task);
    /// A timer that has run, or 0, is no error.
    void cancel(Timer timer);
    void post(Task task) ORVX_EXCLUDES(mutex_);

    /// Returns after the task that calls stop().
    void run();
    void stop() { stopped_ = true; }

  private:
    int timeout() const;
    void takePosted() ORVX_EXCLUDES(mutex_);
    void runPosted();
    void runTimers();

    std::vector<pollfd> polled_;
    std::vector<Task> readable_;
    std::map<std::pair<Clock::time_point, Timer>, Task> timers_;
    std::deque<Task> taken_;
    Timer lastTimer_ = 0;
    bool stopped_ = false;
    int wakeUp_;
    utility::Mutex mutex_;
    std::vector<Task> posted_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::announce
