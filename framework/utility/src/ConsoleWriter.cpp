// The console's queue and the thread that empties it. While the queue is empty, the logging thread
// writes; otherwise only the worker does, which keeps the order, or flush() if there is no worker.
// Entered by any thread; work() runs on the worker, or in the destructor if there is no worker.
// `mutex_` is a leaf lock and is not held for a write that may block, except in flush(): there it
// keeps a worker from starting, and poll() precedes the write.

#include "ConsoleWriter.h"

#include "StandardError.h"

#include <spdlog/pattern_formatter.h>

#include <exception>
#include <string_view>
#include <utility>

namespace orvx::utility {

namespace {

constexpr std::size_t kMostQueuedBytes = 256 * 1024;
/// How long flush() and the destructor wait for a reader.
constexpr std::chrono::seconds kFlushTimeout{1};
/// The delay before standard error is tried again after it took nothing.
constexpr std::chrono::milliseconds kRetryInterval{20};

}  // namespace

ConsoleWriter::ConsoleWriter()
    : formatter_(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%d %H:%M:%S.%e %v")) {}

ConsoleWriter::~ConsoleWriter() {
    bool isWorking = false;
    {
        const MutexLock lock(mutex_);
        deadline_ = Clock::now() + kFlushTimeout;
        isWorking = isWorking_;
        changed_.notify_all();
    }
    if (isWorking) {
        worker_.end();
    } else {
        work();
    }
}

void ConsoleWriter::write(const std::string& text) {
    const MutexLock lock(mutex_);
    if (dropped_ > 0) {
        ++dropped_;
    } else {
        add(formatLine(text));
    }
    if (!queue_.empty() && !isWorking_) {
        startWorker();
    }
}

void ConsoleWriter::add(std::string line) {
    if (queue_.empty()) {
        line.erase(0, writeToStandardError(line, MayWait::No));
        if (line.empty()) {
            return;
        }
    } else if (queuedBytes_ + line.size() > kMostQueuedBytes) {
        dropped_ = 1;
        return;
    }
    const auto bytes = line.size();
    queue_.push_back(std::move(line));
    queuedBytes_ += bytes;
    changed_.notify_all();
}

void ConsoleWriter::startWorker() {
    worker_.start("ORVX_Console", [this] { work(); });
    isWorking_ = true;
}

void ConsoleWriter::flush() {
    MutexLock lock(mutex_);
    const auto until = Clock::now() + kFlushTimeout;
    while (!queue_.empty() && Clock::now() < until) {
        if (isWorking_) {
            changed_.wait_until(lock.native(), until);
            continue;
        }
        const auto written = writeToStandardError(queue_.front(), MayWait::Yes);
        removeWritten(written);
        if (written == 0) {
            changed_.wait_for(lock.native(), kRetryInterval);
        }
    }
}

void ConsoleWriter::work() {
    MutexLock lock(mutex_);
    while (!isFinished()) {
        if (queue_.empty()) {
            changed_.wait(lock.native());
            continue;
        }
        const std::string_view line = queue_.front();
        lock.unlock();
        const auto written = writeToStandardError(line, MayWait::Yes);
        lock.lock();
        removeWritten(written);
        if (written == 0) {
            changed_.wait_for(lock.native(), kRetryInterval);
        }
    }
}

bool ConsoleWriter::isFinished() const {
    return queue_.empty() ? deadline_ != Clock::time_point::max() : Clock::now() >= deadline_;
}

void ConsoleWriter::removeWritten(std::size_t bytes) {
    queuedBytes_ -= bytes;
    queue_.front().erase(0, bytes);
    if (queue_.front().empty()) {
        queue_.pop_front();
    }
    if (!queue_.empty()) {
        return;
    }
    if (const auto dropped = std::exchange(dropped_, 0); dropped > 0) {
        try {
            add(formatLine("WARNING Console: standard error was not read, lines dropped: " +
                           std::to_string(dropped)));
        } catch (const std::exception&) {
            // Memory ran out: the number is lost.
        }
    }
    changed_.notify_all();
}

std::string ConsoleWriter::formatLine(const std::string& text) {
    spdlog::memory_buf_t line;
    formatter_->format({"", spdlog::level::info, text}, line);
    return {line.data(), line.size()};
}

}  // namespace orvx::utility
