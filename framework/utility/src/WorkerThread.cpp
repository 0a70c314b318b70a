// Makes, names and ends one thread.
// Entered by the thread that owns the object and by the thread that was made; the handlers of a
// fork by any. No lock: start() and end() are ordered by the caller, and a thread knows by
// variables of its own whose it is.

#include <orvx/utility/WorkerThread.h>

#include <pthread.h>
#include <semaphore.h>

#include <csignal>
#include <mutex>
#include <new>
#include <utility>

namespace orvx::utility {

namespace {

/// The object that the calling thread belongs to; compared only, never followed.
thread_local const WorkerThread* current = nullptr;

/// The signal mask that a child forked by the calling thread may get.
struct MaskOfChildren {
    bool isWorker = false;
    /// Decided before the fork.
    bool isToSet = false;
    /// Of the thread when it began, and of the one that made it.
    sigset_t own{};
    sigset_t maker{};
};
thread_local MaskOfChildren ofChildren;

/// All signals but those of a crash: blocked there, they would end the process without its handler.
sigset_t blockedSignals() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int crash : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
        sigdelset(&signals, crash);
    }
    return signals;
}

/// A thread inherits the mask of the one that makes it.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        const sigset_t blocked = blockedSignals();
        pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

    const sigset_t& before() const { return before_; }

  private:
    sigset_t before_;
};

bool isEqual(const sigset_t& one, const sigset_t& other) {
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (sigismember(&one, signal) != sigismember(&other, signal)) {
            return false;
        }
    }
    return true;
}

/// A program that a worker forks must not inherit its mask, unless the user's code has set another.
void setMaskOfChildrenAtFork() {
    static std::once_flag once;
    std::call_once(once, [] {
        pthread_atfork(
            [] {
                sigset_t mask;
                pthread_sigmask(SIG_SETMASK, nullptr, &mask);
                ofChildren.isToSet = ofChildren.isWorker && isEqual(mask, ofChildren.own);
            },
            nullptr,
            [] {
                if (ofChildren.isToSet) {
                    pthread_sigmask(SIG_SETMASK, &ofChildren.maker, nullptr);
                }
            });
    });
}

/// Leaves `thread` without a thread, neither joined nor detached. For a forked child, in which the
/// thread does not exist.
void forget(std::thread& thread) noexcept {
    new (&thread) std::thread;
}

/// Waited for until a thread has its name. Signals may end a wait early.
class Named {
  public:
    Named() { sem_init(&semaphore_, 0, 0); }
    ~Named() { sem_destroy(&semaphore_); }
    Named(const Named&) = delete;
    Named& operator=(const Named&) = delete;

    void set() { sem_post(&semaphore_); }
    void wait() {
        while (sem_wait(&semaphore_) != 0) {
        }
    }

  private:
    sem_t semaphore_;
};

}  // namespace

WorkerThread::WorkerThread() = default;

WorkerThread::~WorkerThread() {
    end();
}

void WorkerThread::start(const std::string& name, std::function<void()> function) {
    end();
    setMaskOfChildrenAtFork();
    const SignalsBlocked blocked;
    Named named;
    thread_ = std::thread(
        [this, &named, &name, before = blocked.before(), work = std::move(function)]() noexcept {
            pthread_setname_np(pthread_self(), name.substr(0, kLongestName).c_str());
            named.set();
            current = this;
            ofChildren.isWorker = true;
            ofChildren.maker = before;
            pthread_sigmask(SIG_SETMASK, nullptr, &ofChildren.own);
            work();
        });
    named.wait();
    mark_.set();
}

void WorkerThread::end() noexcept {
    if (isLeftBehind()) {
        forget(thread_);
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
