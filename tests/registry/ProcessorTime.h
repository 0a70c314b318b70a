#pragma once

#include <time.h>

namespace orvx::registry {

/// The processor time of this thread for a call, in seconds. Other processes do not lengthen it.
template <typename Call>
double processorSeconds(const Call& call) {
    const auto now = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double begin = now();
    call();
    return now() - begin;
}

}  // namespace orvx::registry
