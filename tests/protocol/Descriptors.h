#pragma once

#include <sys/resource.h>

#include <cstddef>
#include <vector>

#include "Loopback.h"

namespace orvx::testing {

/// How many file descriptors this process has open.
std::size_t openDescriptors();

/// Leaves the process without a free file descriptor as long as it lives.
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
