// Children that are forked by a process with threads. Entered by any thread; no lock.

#include "Child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

bool isChild = false;

}  // namespace

/// Called by the leak checker of a sanitizer. In a child the checker would report objects that only
/// the stacks of the missing threads refer to.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
    return isChild ? 1 : 0;
}

namespace orvx::testing {

int statusOfChild(const std::function<void()>& work) {
    std::fflush(nullptr);
    const auto child = fork();
    if (child == 0) {
        isChild = true;
        alarm(10);
        work();
        std::exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

}  // namespace orvx::testing
