#pragma once

#include <orvx/utility/Mutex.h>
#include <orvx/utility/WorkerThread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace spdlog {
class formatter;
}

namespace orvx::utility {

/// Writes lines to standard error in the order in which they come, without holding up who logs: at
/// once while standard error takes them, through a bounded queue and a thread of its own from the
/// first line on that it does not take.
///
/// Thread-safety: write() and flush() may be called from any thread, several at once.
/// In a forked child the object is left behind: it is neither used nor destroyed there.
class ConsoleWriter {
  public:
    ConsoleWriter();
    /// Waits until the queue is written, a second at most.
    ~ConsoleWriter();
    ConsoleWriter(const ConsoleWriter&) = delete;
    ConsoleWriter& operator=(const ConsoleWriter&) = delete;

    /// Writes the time, the text and an end of line, or queues them. Once the queue is full, lines
    /// are dropped until all of it is written; a line that counts them follows it.
    /// Throws std::bad_alloc, or std::system_error when there is no thread for the queue: the line
    /// may be queued all the same, for the next call or the destructor.
    void write(const std::string& text) ORVX_EXCLUDES(mutex_);
    /// Waits until the queue is written, a second at most.
    void flush() ORVX_EXCLUDES(mutex_);
    bool isLeftBehind() const noexcept { return worker_.isLeftBehind(); }

    /// Used by leakInForkedChild().
    ConsoleWriter* nextLeaked = nullptr;

  private:
    using Clock = std::chrono::steady_clock;

    std::string lineOf(const std::string& text) ORVX_REQUIRES(mutex_);
    void add(std::string line) ORVX_REQUIRES(mutex_);
    void startWorker() ORVX_REQUIRES(mutex_);
    void work() ORVX_EXCLUDES(mutex_);
    bool isOver() const ORVX_REQUIRES(mutex_);
    void removeWritten(std::size_t bytes) ORVX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    /// Notified when the queue has its first line or none any more, and when the end begins.
    std::condition_variable changed_;
    /// Adds the time and the end of line.
    const std::unique_ptr<spdlog::formatter> formatter_ ORVX_PT_GUARDED_BY(mutex_);
    /// Only work() takes lines out, and writes the first one without the lock.
    std::deque<std::string> queue_ ORVX_GUARDED_BY(mutex_);
    std::size_t queuedBytes_ ORVX_GUARDED_BY(mutex_) = 0;
    std::uint64_t dropped_ ORVX_GUARDED_BY(mutex_) = 0;
    /// When the worker gives up; until the end begins, never.
    Clock::time_point end_ ORVX_GUARDED_BY(mutex_) = Clock::time_point::max();
    bool isWorking_ ORVX_GUARDED_BY(mutex_) = false;
    WorkerThread worker_;
};

}  // namespace orvx::utility
