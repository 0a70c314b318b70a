#pragma once

#include <atomic>

namespace orvx::utility {

/// Remembers the process that it was made or set in, to know a forked child by. In such a child
/// there are no threads but the one that forked, and every lock that another one held is held for
/// ever: what stands behind a mark is to be left alone there, and leaked.
///
/// Thread-safety: every operation may be called from any thread.
class ForkMark {
  public:
    ForkMark();
    /// From here on this process is the one to remember.
    void set();
    /// Whether this process is a child, forked since.
    bool isLeftBehind() const noexcept;

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
