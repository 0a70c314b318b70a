#pragma once

#include <cstddef>
#include <cstdint>

namespace orvx::benchmarks {

/// The resources of this process.
std::size_t threads();
/// The number of times that its threads, except the calling one, have gone to sleep. A thread that
/// was preempted or that yielded has not gone to sleep, because nothing woke it.
std::uint64_t sleepsOfOtherThreads();
/// The heap in use in bytes, in all arenas, after free memory was returned.
std::size_t heapInUse();

}  // namespace orvx::benchmarks
