#pragma once

#include <sys/resource.h>

#include <cstddef>
#include <vector>

#include "Loopback.h"

namespace orvx::testing {

/// The number of file descriptors that this process has open.
std::size_t openDescriptors();

/// While an object lives, the process has no free file descriptor.
class NoDescriptors {
  public:
    NoDescriptors();
    ~NoDescriptors();
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    rlim_t limit_;
    std::vector<Socket> taken_;
};

}  // namespace orvx::testing
