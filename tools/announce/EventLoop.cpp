// Waits for descriptors, timers and posted tasks in one poll().
// Runs on the main thread; any thread may call post(). The lock guards the list of posted tasks
// only; no task runs under it.

#include "EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <system_error>

namespace orvx::announce {

using std::chrono::milliseconds;

namespace {

constexpr milliseconds kMaxTaskTime{10};

}  // namespace

EventLoop::EventLoop() : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wakeUp_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    watch(wakeUp_, [this] { collectPosted(); });
}

EventLoop::~EventLoop() {
    ::close(wakeUp_);
}

void EventLoop::watch(int descriptor, Task task) {
    polled_.push_back({descriptor, POLLIN, 0});
    readable_.push_back(std::move(task));
}

EventLoop::Timer EventLoop::after(milliseconds delay, Task task) {
    timers_.emplace(std::pair(Clock::now() + delay, ++lastTimer_), std::move(task));
    return lastTimer_;
}

void EventLoop::cancel(Timer timer) {
    const auto found = std::find_if(timers_.begin(), timers_.end(), [timer](const auto& entry) {
        return entry.first.second == timer;
    });
    if (found != timers_.end()) {
        timers_.erase(found);
    }
}

void EventLoop::post(Task task) {
    {
        const utility::MutexLock lock(mutex_);
        posted_.push_back(std::move(task));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeUp_, &one, sizeof one);
}

void EventLoop::run() {
    while (!stopped_) {
        ::poll(polled_.data(), polled_.size(), timeout());
        for (std::size_t i = 0; i < polled_.size() && !stopped_; ++i) {
            if (std::exchange(polled_[i].revents, short{0}) != 0) {
                readable_[i]();
            }
        }
        runTimers();
        runPosted();
    }
}

int EventLoop::timeout() const {
    if (!tasks_.empty()) {
        return 0;
    }
    if (timers_.empty()) {
        return -1;
    }
    const auto left = timers_.begin()->first.first - Clock::now();
    const auto rounded = std::chrono::ceil<milliseconds>(left).count();
    return static_cast<int>(std::clamp<decltype(rounded)>(rounded, 0, 60'000));
}

void EventLoop::collectPosted() {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto size = ::read(wakeUp_, &count, sizeof count);
    const utility::MutexLock lock(mutex_);
    std::move(posted_.begin(), posted_.end(), std::back_inserter(tasks_));
    posted_.clear();
}

void EventLoop::runPosted() {
    const auto end = Clock::now() + kMaxTaskTime;
    while (!stopped_ && !tasks_.empty() && Clock::now() < end) {
        const Task task = std::move(tasks_.front());
        tasks_.pop_front();
        task();
    }
}

void EventLoop::runTimers() {
    const auto now = Clock::now();
    const Timer newest = lastTimer_;
    const auto nextDue = [&] {
        const auto end = timers_.upper_bound({now, newest});
        const auto isOld = [newest](const auto& entry) { return entry.first.second <= newest; };
        const auto found = std::find_if(timers_.begin(), end, isOld);
        return found == end ? timers_.end() : found;
    };
    for (auto due = nextDue(); !stopped_ && due != timers_.end(); due = nextDue()) {
        const Task task = std::move(due->second);
        timers_.erase(due);
        task();
    }
}

}  // namespace orvx::announce
