#pragma once

#include <sys/eventfd.h>

namespace orvx::communication {

/// Wakes an I/O thread through its event descriptor, which this object does not own.
/// Thread-safety: raise() may be called from any thread.
class WakeUp {
  public:
    explicit WakeUp(int eventDescriptor) : descriptor_(eventDescriptor) {}
    void raise() const noexcept { ::eventfd_write(descriptor_, 1); }

  private:
    const int descriptor_;
};

}  // namespace orvx::communication
