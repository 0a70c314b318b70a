#pragma once

#include <orvx/utility/Mutex.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace orvx::tools {

/// Writes lines to a descriptor in their order, and never waits for a reader. Lines are written at
/// once while the reader takes them. From the first line on that it does not take, lines go through
/// a bounded queue. Once the queue is full, lines are dropped until it is empty; a line with their
/// number follows. A line of which a part is written is completed before another one begins. If the
/// rest cannot be written, such as on a full disk, the next line begins on a new line.
///
/// A write to a regular file may wait for its disk.
///
/// Thread-safety: any thread. SIGPIPE must be blocked or ignored.
class LineWriter {
  public:
    /// The maximum size of the queue. A line that finds the queue empty may be longer.
    static constexpr std::size_t kMostQueuedBytes = 256UL * 1'024;

    /// Makes the line, with its end, that tells how many lines were dropped. Called on any thread,
    /// and does not call the writer.
    using DropLine = std::function<std::string(std::uint64_t)>;

    /// What empties the queue between two lines: a thread, which the first line that is queued
    /// starts; or the caller, by flush().
    enum class Emptied { ByThread, ByCaller };

    /// `descriptor`: is owned by the caller, and remains open. Its flags are not changed, since
    /// other processes may share them: a pipe or a terminal is opened a second time.
    LineWriter(int descriptor, DropLine dropLine, Emptied emptied = Emptied::ByThread);
    /// Waits until the queue is written, at most one second.
    ~LineWriter();
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    /// `line`: with its end. False: it is lost, because the queue is full or writing failed. What
    /// is queued is lost without further notice when the reader ends.
    bool write(const std::string& line) ORVX_EXCLUDES(mutex_);
    /// Writes what the reader takes now.
    void flush() ORVX_EXCLUDES(mutex_);

  private:
    using Clock = std::chrono::steady_clock;

    bool isReady() const;
    long writeSome() const ORVX_REQUIRES(mutex_);
    bool writeQueue() ORVX_REQUIRES(mutex_);
    void startThread() ORVX_REQUIRES(mutex_);
    void work() ORVX_EXCLUDES(mutex_);
    bool isFinished() const ORVX_REQUIRES(mutex_);

    /// Refers to a second open file description of a pipe or a terminal; -1: there is none.
    const int ownDescriptor_;
    const int descriptor_;
    /// Whether a write may block if it is longer than PIPE_BUF.
    const bool mayBlock_;
    const DropLine dropLine_;
    const Emptied emptied_;

    utility::Mutex mutex_;
    std::condition_variable changed_;  // the queue is not empty any more, or the end has begun
    std::string queue_ ORVX_GUARDED_BY(mutex_);
    /// Whether only a part of the last line is written. If the rest is lost, the next line begins
    /// with a line break.
    bool isLineCut_ ORVX_GUARDED_BY(mutex_) = false;
    std::uint64_t dropped_ ORVX_GUARDED_BY(mutex_) = 0;
    /// The time at which the thread gives up; the maximum until the destructor begins.
    Clock::time_point deadline_ ORVX_GUARDED_BY(mutex_) = Clock::time_point::max();
    std::thread thread_;
};

}  // namespace orvx::tools
