#pragma once

#include <cstddef>
#include <cstdint>

namespace orvx::benchmarks {

/// What this process has by now.
std::size_t threads();
/// How often its threads other than the calling one have gone to sleep. A thread that the kernel
/// preempted, or that yielded, has not: nothing woke it up.
std::uint64_t sleepsOfOtherThreads();
/// Bytes of heap in use, all arenas, once what is free was given back.
std::size_t heapInUse();

}  // namespace orvx::benchmarks
