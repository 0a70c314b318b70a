#pragma once

#include <cstddef>
#include <cstdint>

namespace orvx::benchmarks {

/// What this process has by now.
std::size_t threads();
/// How often its threads have stopped running, beside the calling one.
std::uint64_t switchesOfOtherThreads();
/// Bytes of heap in use, all arenas, once what is free was given back.
std::size_t heapInUse();

}  // namespace orvx::benchmarks
