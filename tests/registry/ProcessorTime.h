#pragma once

#include <time.h>

namespace orvx::registry {

/// The processor time that the owner of the clock uses during a call, in seconds. The
/// default is this thread. It does not include the time of other processes.
template <typename Call>
double processorSeconds(const Call& call, clockid_t clock = CLOCK_THREAD_CPUTIME_ID) {
    const auto now = [clock] {
        timespec time{};
        ::clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double begin = now();
    call();
    return now() - begin;
}

}  // namespace orvx::registry
