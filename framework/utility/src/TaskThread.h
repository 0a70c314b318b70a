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

/// A thread that runs tasks one after another. Tasks without a due time (those of an executor) run
/// in the order in which they were added. Tasks with a due time (those of a timer) run in the order
/// of their due times; equal ones in the order in which they were added.
///
/// Always owned by a shared pointer: the thread keeps the object alive, so a task may end it.
/// Thread-safety: every operation may be called from any thread and from inside a task; start(),
/// stop() and end() must not be called by two threads at once.
class TaskThread : public std::enable_shared_from_this<TaskThread> {
  public:
    using Task = std::function<void()>;
    using Tasks = std::list<Task>;
    using ErrorHandler = std::function<void(const std::string&)>;
    using Clock = std::chrono::steady_clock;
    /// What happens to tasks that are added while the thread is stopped.
    enum class WhileStopped { KeepTasks, DropTasks };

    /// `errorHandler` may be empty.
    TaskThread(WhileStopped whileStopped, ErrorHandler errorHandler);

    /// Does nothing while the thread runs. Throws std::system_error.
    void start(const std::string& name) ORVX_EXCLUDES(mutex_);
    void add(Clock::time_point due, Task task) ORVX_EXCLUDES(mutex_);
    /// Adds tasks without a due time.
    void add(Tasks&& tasks) noexcept ORVX_EXCLUDES(mutex_);
    bool isRunning() const ORVX_EXCLUDES(mutex_);
    /// Drops the pending tasks and waits for the running task, unless called from inside it. Does
    /// nothing when stopped, and in a forked child.
    void stop() ORVX_EXCLUDES(mutex_);
    /// Stops for ever: drops the tasks and refuses new ones. In a forked child `self` is leaked
    /// instead.
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
    void halt(bool isFinal) ORVX_EXCLUDES(mutex_);
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
    /// Notified when a new task is the first to fall due, and when the thread stops.
    std::condition_variable changed_;
    Tasks queue_ ORVX_GUARDED_BY(mutex_);
    /// Entries that were added in the order of their due times. Most entries are, because there are
    /// few different delays, and a heap of many entries costs more time and memory.
    std::deque<Entry> inOrder_ ORVX_GUARDED_BY(mutex_);
    /// All other entries, as a heap; its front falls due first.
    std::vector<Entry> heap_ ORVX_GUARDED_BY(mutex_);
    std::uint64_t added_ ORVX_GUARDED_BY(mutex_) = 0;
    bool running_ ORVX_GUARDED_BY(mutex_) = false;
    /// The worker waits for a notification.
    bool sleeping_ ORVX_GUARDED_BY(mutex_) = false;
    /// The worker has not left its loop. After a stop from inside a task the worker is still in the
    /// loop, and a start lets it continue.
    bool working_ ORVX_GUARDED_BY(mutex_) = false;
    bool ended_ ORVX_GUARDED_BY(mutex_) = false;
    WorkerThread worker_;
    /// Set by end() in a forked child only, so that the object is never destroyed.
    std::shared_ptr<TaskThread> self_;
};

}  // namespace orvx::utility
