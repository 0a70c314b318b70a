// Counts the open file descriptors of this process, and opens all remaining ones.
//
// Threads: the limit belongs to the process, so there is one NoDescriptors at a time. No locks.

#include "Descriptors.h"

#include <dirent.h>
#include <fcntl.h>

#include <memory>

namespace orvx::testing {
namespace {

constexpr rlim_t kLow = 256;

rlimit limits() {
    rlimit limits{};
    ::getrlimit(RLIMIT_NOFILE, &limits);
    return limits;
}

rlim_t setLimit(rlim_t limit) {
    rlimit next = limits();
    const rlim_t previous = next.rlim_cur;
    next.rlim_cur = limit;
    ::setrlimit(RLIMIT_NOFILE, &next);
    return previous;
}

}  // namespace

std::size_t openDescriptors() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fd"), ::closedir);
    std::size_t count = 0;
    while (::readdir(folder.get()) != nullptr) {
        ++count;
    }
    return count - 3;  // ".", "..", and the folder's own descriptor
}

// Lowers the limit first, so that only a few descriptors have to be opened.
NoDescriptors::NoDescriptors() : limit_(setLimit(kLow)) {
    int fd = 0;
    while ((fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0) {
        taken_.emplace_back(fd);
    }
}

NoDescriptors::~NoDescriptors() {
    setLimit(limit_);
}

}  // namespace orvx::testing
