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

/// Writes lines to standard error in their order, without blocking the thread that logs. Lines are
/// written at once while standard error takes them. From the first line on that it does not take,
/// lines go through a bounded queue and a worker.
///
/// Thread-safety: write() and flush() may be called from any thread, several at once.
/// In a forked child the object is leaked: it is neither used nor destroyed there.
class ConsoleWriter {
  public:
    ConsoleWriter();
    /// Waits until the queue is written, at most one second.
    ~ConsoleWriter();
    ConsoleWriter(const ConsoleWriter&) = delete;
    ConsoleWriter& operator=(const ConsoleWriter&) = delete;

    /// Writes the time, the text and an end of line, or queues them. Once the queue is full, lines
    /// are dropped until it is empty; a line with their number follows.
    /// Throws std::bad_alloc, or std::system_error if the worker cannot be made. The line may have
    /// been queued in spite of that; the next call or the destructor writes it.
    void write(const std::string& text) ORVX_EXCLUDES(mutex_);
    /// Waits until the queue is written, at most one second. Writes it itself if there is no
    /// worker.
    void flush() ORVX_EXCLUDES(mutex_);
    bool isInForkedChild() const noexcept { return worker_.isInForkedChild(); }

    /// Used by leakInForkedChild().
    ConsoleWriter* nextLeaked = nullptr;

  private:
    using Clock = std::chrono::steady_clock;

    std::string formatLine(const std::string& text) ORVX_REQUIRES(mutex_);
    void add(std::string line) ORVX_REQUIRES(mutex_);
    void startWorker() ORVX_REQUIRES(mutex_);
    void work() ORVX_EXCLUDES(mutex_);
    bool isFinished() const ORVX_REQUIRES(mutex_);
    void removeWritten(std::size_t bytes) ORVX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    /// Notified when the queue becomes non-empty or empty, and when the destructor begins.
    std::condition_variable changed_;
    /// Adds the time and the end of line.
    const std::unique_ptr<spdlog::formatter> formatter_ ORVX_PT_GUARDED_BY(mutex_);
    /// Only work() removes lines, or flush() while no worker exists. work() writes the first line
    /// without the lock.
    std::deque<std::string> queue_ ORVX_GUARDED_BY(mutex_);
    std::size_t queuedBytes_ ORVX_GUARDED_BY(mutex_) = 0;
    std::uint64_t dropped_ ORVX_GUARDED_BY(mutex_) = 0;
    /// The time at which the worker gives up; the maximum until the destructor begins.
    Clock::time_point deadline_ ORVX_GUARDED_BY(mutex_) = Clock::time_point::max();
    bool isWorking_ ORVX_GUARDED_BY(mutex_) = false;
    WorkerThread worker_;
};

}  // namespace orvx::utility
