#pragma once

#include <orvx/utility/Mutex.h>
#include <orvx/utility/WorkerThread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace orvx::utility {

/// A thread that runs tasks one after another: those without a due time (an executor's) in the
/// order in which they were added, those with one (a timer's) in the order of their due times,
/// equal ones as they were added.
///
/// Always owned by a shared pointer: the thread keeps the object alive, so that a task may end it.
/// Thread-safety: every operation may be called from any thread and from inside a task; start(),
/// stop() and end() not by two threads at once.
class TaskThread : public std::enable_shared_from_this<TaskThread> {
  public:
    using Task = std::function<void()>;
    using Tasks = std::list<Task>;
    using ErrorHandler = std::function<void(const std::string&)>;
    using Clock = std::chrono::steady_clock;
    /// What becomes of tasks that are added while the thread is stopped.
    enum class WhileStopped { KeepTasks, DropTasks };

    /// `errorHandler` may be empty.
    TaskThread(WhileStopped whileStopped, ErrorHandler errorHandler);

    /// Does nothing while the thread runs. Throws std::system_error.
    void start(const std::string& name) ORVX_EXCLUDES(mutex_);
    void add(Clock::time_point due, Task task) ORVX_EXCLUDES(mutex_);
    /// Tasks without a due time.
    void add(Tasks&& tasks) noexcept ORVX_EXCLUDES(mutex_);
    bool isRunning() const ORVX_EXCLUDES(mutex_);
    /// Drops the tasks and waits for the one that is running, unless called from inside it.
    /// Does nothing when stopped, and in a forked child.
    void stop() ORVX_EXCLUDES(mutex_);
    /// Stops for ever: no task is left, and none is taken any more. In a forked child `self` is
    /// leaked instead.
    static void end(const std::shared_ptr<TaskThread>& self);

    /// Used by leakInForkedChild().
    TaskThread* nextLeaked = nullptr;

  private:
    struct Entry {
        Clock::time_point due;
        std::uint64_t number;
        Task task;
    };

    static bool isLater(const Entry& one, const Entry& other);
    void halt(bool forEver) ORVX_EXCLUDES(mutex_);
    void work() ORVX_EXCLUDES(mutex_);
    bool takesTasks() const ORVX_REQUIRES(mutex_);
    const Entry* first() const ORVX_REQUIRES(mutex_);
    bool isOneDue() const ORVX_REQUIRES(mutex_);
    void wait(MutexLock& lock) ORVX_REQUIRES(mutex_);
    Task takeFirst() ORVX_REQUIRES(mutex_);
    void run(Task& task) const ORVX_EXCLUDES(mutex_);
    void report(const char* error) const;

    const WhileStopped whileStopped_;
    const ErrorHandler errorHandler_;
    mutable Mutex mutex_;
    /// Notified when another task is the first to fall due, and when there is nothing to wait for.
    std::condition_variable changed_;
    Tasks queue_ ORVX_GUARDED_BY(mutex_);
    /// Entries that were added in the order in which they fall due. Most are: there are few
    /// different delays. A heap of many costs more time and more memory.
    std::deque<Entry> inOrder_ ORVX_GUARDED_BY(mutex_);
    /// The others, as a heap; its front falls due first.
    std::vector<Entry> heap_ ORVX_GUARDED_BY(mutex_);
    std::uint64_t added_ ORVX_GUARDED_BY(mutex_) = 0;
    bool running_ ORVX_GUARDED_BY(mutex_) = false;
    /// The worker waits for a notification.
    bool sleeping_ ORVX_GUARDED_BY(mutex_) = false;
    /// The worker has not left its loop. After a stop from inside a task it is still in there, and
    /// a start lets it go on.
    bool working_ ORVX_GUARDED_BY(mutex_) = false;
    bool ended_ ORVX_GUARDED_BY(mutex_) = false;
    WorkerThread worker_;
    /// Set by end() in a forked child only, so that the object is never destroyed.
    std::shared_ptr<TaskThread> self_;
};

}  // namespace orvx::utility
