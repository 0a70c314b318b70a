// Makes, names and ends one thread.
// Entered by the thread that owns the object and by the thread that was made. No lock: start() and
// end() are ordered by the caller, and a thread knows by a variable of its own whose it is.

#include <orvx/utility/WorkerThread.h>

#include <pthread.h>

#include <csignal>
#include <new>
#include <utility>

namespace orvx::utility {

namespace {

/// The object that the calling thread belongs to; compared only, never followed.
thread_local const WorkerThread* current = nullptr;

constexpr std::size_t longestName = 15;

/// A thread inherits the mask of the one that makes it.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t before_;
};

}  // namespace

WorkerThread::WorkerThread() = default;

WorkerThread::~WorkerThread() {
    end();
}

void WorkerThread::start(const std::string& name, std::function<void()> function) {
    end();
    const SignalsBlocked blocked;
    thread_ = std::thread(
        [this, shown = name.substr(0, longestName), work = std::move(function)]() noexcept {
            current = this;
            pthread_setname_np(pthread_self(), shown.c_str());
            work();
        });
    mark_.set();
}

void WorkerThread::end() noexcept {
    if (isLeftBehind()) {
        // Forgotten, neither joined nor detached: it does not exist in this process.
        new (&thread_) std::thread;
    } else if (isCurrent()) {
        // From here on an object at the same address is another one.
        current = nullptr;
        thread_.detach();
    } else if (thread_.joinable()) {
        thread_.join();
    }
}

bool WorkerThread::isCurrent() const noexcept {
    return current == this;
}

}  // namespace orvx::utility
