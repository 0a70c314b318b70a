#pragma once

#include <mutex>

// A mutex whose lock rules clang checks at compile time (-Wthread-safety). With other compilers the
// annotations expand to nothing, which leaves std::mutex and std::unique_lock.
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

/// A std::mutex with annotations for clang. Usually locked by a MutexLock.
class ORVX_ANNOTATION(capability("mutex")) Mutex {
  public:
    /// Blocks until the mutex is free and locks it. Not recursive.
    void lock() ORVX_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    /// Unlocks the mutex. Only by the thread that holds it.
    void unlock() ORVX_ANNOTATION(release_capability()) { mutex_.unlock(); }
    /// Locks the mutex if it is free; never blocks. Returns whether it was locked.
    bool try_lock() ORVX_ANNOTATION(try_acquire_capability(true)) { return mutex_.try_lock(); }

  private:
    friend class MutexLock;
    std::mutex mutex_;
};

/// Holds a Mutex for a scope; may be unlocked and locked again within the scope.
class ORVX_ANNOTATION(scoped_lockable) MutexLock {
  public:
    /// Locks the mutex, which must outlive this object.
    explicit MutexLock(Mutex& mutex) ORVX_ANNOTATION(acquire_capability(mutex))
        : lock_(mutex.mutex_) {}
    /// Unlocks the mutex if it is held.
    ~MutexLock() ORVX_ANNOTATION(release_capability()) {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Locks the mutex again after unlock().
    void lock() ORVX_ANNOTATION(acquire_capability()) { lock_.lock(); }
    /// Unlocks the mutex before the end of the scope.
    void unlock() ORVX_ANNOTATION(release_capability()) { lock_.unlock(); }

    /// For std::condition_variable: after a wait the lock is held again.
    std::unique_lock<std::mutex>& native() { return lock_; }

  private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace orvx::utility
