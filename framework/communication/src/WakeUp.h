#pragma once

#include <sys/eventfd.h>

namespace orvx::communication {

/// Wakes an I/O thread that waits for this descriptor, which is not its own.
/// Thread-safety: raise() from any thread.
class WakeUp {
  public:
    explicit WakeUp(int eventDescriptor) : descriptor_(eventDescriptor) {}
    int descriptor() const { return descriptor_; }
    void raise() const noexcept { ::eventfd_write(descriptor_, 1); }

  private:
    const int descriptor_;
};

}  // namespace orvx::communication
