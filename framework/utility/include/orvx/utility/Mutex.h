#pragma once

#include <mutex>

// A mutex whose lock rule clang checks at compile time (-Wthread-safety). With other compilers the
// annotations vanish and what is left is std::mutex and std::unique_lock.
#if defined(__clang__)
#define ORVX_ANNOTATION(x) __attribute__((x))
#else
#define ORVX_ANNOTATION(x)
#endif

#define ORVX_GUARDED_BY(x) ORVX_ANNOTATION(guarded_by(x))
#define ORVX_PT_GUARDED_BY(x) ORVX_ANNOTATION(pt_guarded_by(x))
#define ORVX_REQUIRES(...) ORVX_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORVX_EXCLUDES(...) ORVX_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace orvx::utility {

/// A std::mutex that clang can follow: see above. Usually taken by a MutexLock.
class ORVX_ANNOTATION(capability("mutex")) Mutex {
  public:
    /// Waits until no other thread holds it. Not recursive.
    void lock() ORVX_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    /// Only by the thread that holds it.
    void unlock() ORVX_ANNOTATION(release_capability()) { mutex_.unlock(); }
    /// Takes it if nobody holds it; never waits. False: it was not taken.
    bool try_lock() ORVX_ANNOTATION(try_acquire_capability(true)) { return mutex_.try_lock(); }

  private:
    friend class MutexLock;
    std::mutex mutex_;
};

/// Holds a Mutex for a scope; may be let go and taken again within it.
class ORVX_ANNOTATION(scoped_lockable) MutexLock {
  public:
    /// Takes the mutex, which must outlive this object.
    explicit MutexLock(Mutex& mutex) ORVX_ANNOTATION(acquire_capability(mutex))
        : lock_(mutex.mutex_) {}
    /// Lets it go if it is held.
    ~MutexLock() ORVX_ANNOTATION(release_capability()) {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Takes it again after unlock().
    void lock() ORVX_ANNOTATION(acquire_capability()) { lock_.lock(); }
    /// Lets it go before the scope ends.
    void unlock() ORVX_ANNOTATION(release_capability()) { lock_.unlock(); }

    /// For std::condition_variable: a wait returns with the lock held again.
    std::unique_lock<std::mutex>& native() { return lock_; }

  private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace orvx::utility
