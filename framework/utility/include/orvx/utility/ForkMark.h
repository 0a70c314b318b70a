#pragma once

#include <orvx/utility/Export.h>

#include <atomic>

namespace orvx::utility {

/// Remembers the process that it was made or set in, to know a forked child by. In such a child
/// there are no threads but the one that forked, and every lock that another one held is held for
/// ever: what stands behind a mark is to be left alone there, and leaked.
///
/// Thread-safety: every operation may be called from any thread.
class ORVX_EXPORT ForkMark {
  public:
    ForkMark();
    /// From here on this process is the one to remember.
    void set();
    /// Whether this process is a child, forked since.
    bool isLeftBehind() const noexcept;

  private:
    std::atomic<int> process_;
};

}  // namespace orvx::utility
