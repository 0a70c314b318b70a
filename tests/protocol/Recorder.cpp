// Lines for which a test waits.
//
// Threads: any. mutex_ guards the lines and is a leaf lock.

#include "Recorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace orvx::testing {

using utility::MutexLock;

void Recorder::add(std::string line) {
    MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
    added_.notify_all();
}

Recorder::Lines Recorder::take(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    MutexLock lock(mutex_);
    while (lines_.size() < count) {
        if (added_.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
            ADD_FAILURE() << lines_.size() << " lines came, not " << count;
            count = std::min(count, lines_.size());
        }
    }
    const auto end = lines_.begin() + static_cast<std::ptrdiff_t>(count);
    Lines taken(std::make_move_iterator(lines_.begin()), std::make_move_iterator(end));
    lines_.erase(lines_.begin(), end);
    return taken;
}

std::string Recorder::next() {
    const Lines lines = take(1);
    return lines.empty() ? std::string() : lines.front();
}

Recorder::Lines Recorder::rest() {
    MutexLock lock(mutex_);
    return std::exchange(lines_, {});
}

}  // namespace orvx::testing
