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

/// What the tests of threads have in common. Every wait is bounded; a bound that is reached fails
/// the test.
namespace orvx::utility::test {

constexpr std::chrono::seconds bound{60};
/// How long something that must not happen is watched for.
constexpr std::chrono::milliseconds aWhile{30};

template <typename Future>
bool isReady(const Future& future, std::chrono::milliseconds patience = bound) {
    return future.wait_for(patience) == std::future_status::ready;
}

/// Something that happens on one thread and is waited for on another. It may be destroyed as soon
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
        return changed_.wait_for(lock, bound, [&] { return happened_; });
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

/// Takes notes from any thread, in order.
template <typename Note>
class Journal {
  public:
    void write(Note note) {
        const std::lock_guard<std::mutex> lock(mutex_);
        notes_.push_back(std::move(note));
        changed_.notify_all();
    }
    /// The notes, as soon as there are that many; what there is when none came within the bound.
    std::vector<Note> await(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        bool progress = true;
        while (progress && notes_.size() < count) {
            progress = changed_.wait_for(
                lock, bound, [this, seen = notes_.size()] { return notes_.size() > seen; });
        }
        return notes_;
    }
    std::vector<Note> notes() { return await(0); }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Note> notes_;
};

/// A task that calls `whenDestroyed` when the last copy of it is destroyed.
inline std::function<void()> watched(std::function<void()> task,
                                     std::function<void()> whenDestroyed) {
    const std::shared_ptr<void> token(nullptr,
                                      [whenDestroyed](void* /*nothing*/) { whenDestroyed(); });
    return [task, token] { task(); };
}

inline void nothing() {}

/// As long as it exists, no thread can be made: the stack of a new one would not fit anywhere.
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

/// How many threads of this process the system shows under `name`.
std::size_t threadsNamed(const std::string& name);

/// The signals that the calling thread could block and does not, in order.
std::vector<int> openSignals();

}  // namespace orvx::utility::test
