#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Helpers for tests of threads. Every wait has a time limit; reaching it fails the test.
namespace orvx::utility::test {

constexpr std::chrono::seconds kBound{60};
/// The time for which a test observes that an event does not happen.
constexpr std::chrono::milliseconds kAWhile{30};

template <typename Future>
bool isReady(const Future& future, std::chrono::milliseconds patience = kBound) {
    return future.wait_for(patience) == std::future_status::ready;
}

/// An event that happens on one thread and for which another one waits. It may be destroyed as soon
/// as the wait is over.
class Event {
  public:
    void set() {
        const std::lock_guard<std::mutex> lock(mutex_);
        happened_ = true;
        changed_.notify_all();
    }
    bool happens() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kBound, [&] { return happened_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool happened_ = false;
};

/// Holds a worker: the task that enters stays until the gate is opened. Outlives the worker.
class Gate {
  public:
    std::function<void()> task() {
        return [this] { pass(); };
    }
    void pass() {
        entered_.set();
        opened_.happens();
    }
    bool isEntered() { return entered_.happens(); }
    void open() { opened_.set(); }

  private:
    Event entered_;
    Event opened_;
};

/// Records notes from any thread, in order.
template <typename Note>
class Journal {
  public:
    void write(Note note) {
        const std::lock_guard<std::mutex> lock(mutex_);
        notes_.push_back(std::move(note));
        changed_.notify_all();
    }
    /// Waits until there are that many notes. Returns the notes that came within the time limit.
    std::vector<Note> await(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        bool progress = true;
        while (progress && notes_.size() < count) {
            progress = changed_.wait_for(
                lock, kBound, [this, seen = notes_.size()] { return notes_.size() > seen; });
        }
        return notes_;
    }
    std::vector<Note> notes() { return await(0); }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Note> notes_;
};

/// A task that calls `whenDestroyed` when its last copy is destroyed.
inline std::function<void()> watched(std::function<void()> task,
                                     std::function<void()> whenDestroyed) {
    const std::shared_ptr<void> token(nullptr,
                                      [whenDestroyed](void* /*nothing*/) { whenDestroyed(); });
    return [task, token] { task(); };
}

inline void nothing() {}

/// While the object lives, no thread can be made, because there is no space for its stack.
class ThreadsCannotBeMade {
  public:
    ThreadsCannotBeMade() {
        pthread_getattr_default_np(&before_);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, std::size_t{1} << 62);
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~ThreadsCannotBeMade() {
        pthread_setattr_default_np(&before_);
        pthread_attr_destroy(&before_);
    }
    ThreadsCannotBeMade(const ThreadsCannotBeMade&) = delete;
    ThreadsCannotBeMade& operator=(const ThreadsCannotBeMade&) = delete;

  private:
    pthread_attr_t before_;
};

/// The number of this process's threads with this name, without those that have been joined.
std::size_t threadsNamed(const std::string& name);

/// The signals that the calling thread could block and does not block, in order.
std::vector<int> openSignals();

}  // namespace orvx::utility::test
