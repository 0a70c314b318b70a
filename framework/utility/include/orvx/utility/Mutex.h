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

class ORVX_ANNOTATION(capability("mutex")) Mutex {
  public:
    void lock() ORVX_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    void unlock() ORVX_ANNOTATION(release_capability()) { mutex_.unlock(); }
    bool try_lock() ORVX_ANNOTATION(try_acquire_capability(true)) { return mutex_.try_lock(); }

  private:
    friend class MutexLock;
    std::mutex mutex_;
};

/// Holds a Mutex for a scope; may be let go and taken again within it.
class ORVX_ANNOTATION(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ORVX_ANNOTATION(acquire_capability(mutex))
        : lock_(mutex.mutex_) {}
    ~MutexLock() ORVX_ANNOTATION(release_capability()) {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void lock() ORVX_ANNOTATION(acquire_capability()) { lock_.lock(); }
    void unlock() ORVX_ANNOTATION(release_capability()) { lock_.unlock(); }

    /// For std::condition_variable: a wait returns with the lock held again.
    std::unique_lock<std::mutex>& native() { return lock_; }

  private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace orvx::utility
