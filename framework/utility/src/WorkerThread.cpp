// Starts, names and ends one thread.
// Entered by the thread that owns the object and by the new thread; the fork handlers by any
// thread. No lock: the caller orders start() and end(), and thread-local variables hold the rest.

#include <orvx/utility/WorkerThread.h>

#include <pthread.h>
#include <semaphore.h>

#include <csignal>
#include <mutex>
#include <new>
#include <utility>

namespace orvx::utility {

namespace {

/// The object that the calling thread belongs to; only compared, never dereferenced.
thread_local const WorkerThread* current = nullptr;

/// The signal mask for a child that is forked by the calling thread.
struct ChildSignalMask {
    bool isWorker = false;
    /// Set before the fork.
    bool mustRestore = false;
    /// The masks of the thread at its start, and of the creating thread.
    sigset_t initial{};
    sigset_t creator{};
};
thread_local ChildSignalMask childMask;

/// All signals except those of a crash: if those were blocked, a crash would end the process
/// without calling its handler.
sigset_t blockedSignals() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int crash : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
        sigdelset(&signals, crash);
    }
    return signals;
}

/// Blocks signals for a scope: a new thread inherits the mask of the creating thread.
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

/// Makes children that a worker forks use the mask of the creating thread, unless user code has
/// changed the worker's mask.
void restoreMaskInForkedChildren() {
    static std::once_flag once;
    std::call_once(once, [] {
        pthread_atfork(
            [] {
                sigset_t mask;
                pthread_sigmask(SIG_SETMASK, nullptr, &mask);
                childMask.mustRestore = childMask.isWorker && isEqual(mask, childMask.initial);
            },
            nullptr,
            [] {
                if (childMask.mustRestore) {
                    pthread_sigmask(SIG_SETMASK, &childMask.creator, nullptr);
                }
            });
    });
}

/// Leaves `thread` without a thread, neither joined nor detached. For a forked child, in which the
/// thread does not exist.
void forget(std::thread& thread) noexcept {
    new (&thread) std::thread;
}

/// Signalled when the thread has its name. Signals may interrupt the wait, which is repeated.
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
    restoreMaskInForkedChildren();
    const SignalsBlocked blocked;
    Named named;
    thread_ = std::thread(
        [this, &named, &name, before = blocked.before(), work = std::move(function)]() noexcept {
            pthread_setname_np(pthread_self(), name.substr(0, kLongestName).c_str());
            named.set();
            current = this;
            childMask.isWorker = true;
            childMask.creator = before;
            pthread_sigmask(SIG_SETMASK, nullptr, &childMask.initial);
            work();
        });
    named.wait();
    mark_.set();
}

void WorkerThread::end() noexcept {
    if (isInForkedChild()) {
        forget(thread_);
    } else if (isCurrent()) {
        // Another object may have the same address from here on.
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
