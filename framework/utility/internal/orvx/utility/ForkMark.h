#pragma once

#include <atomic>

namespace orvx::utility {

/// Remembers the process in which it was made or set, to recognise a forked child. Such a child has
/// only the thread that forked, and every lock that another thread held stays locked for ever. So
/// the child must neither use nor destroy objects that belong to other threads: it leaks them.
///
/// Thread-safety: every operation may be called from any thread.
class ForkMark {
  public:
    ForkMark();
    /// Remembers the current process.
    void set();
    /// Whether this process is a forked child of the remembered process.
    bool isInForkedChild() const noexcept;

  private:
    std::atomic<int> process_;
};

/// Leaks `object` in a forked child, where it can be neither used nor destroyed. The object stays
/// reachable through a list, so that leak checkers do not report it. T has a member
/// `T* nextLeaked`, which the list uses.
///
/// Thread-safety: may be called from any thread.
template <typename T>
void leakInForkedChild(T* object) noexcept {
    static std::atomic<T*> newest;
    object->nextLeaked = newest.exchange(object);
}

}  // namespace orvx::utility
