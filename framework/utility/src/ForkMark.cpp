// Knows a forked child by its process id. Entered by any thread; no lock.

#include <orvx/utility/ForkMark.h>

#include <unistd.h>

namespace orvx::utility {

ForkMark::ForkMark() : process_(getpid()) {}

void ForkMark::set() {
    process_ = getpid();
}

bool ForkMark::isLeftBehind() const noexcept {
    return process_ != getpid();
}

}  // namespace orvx::utility
