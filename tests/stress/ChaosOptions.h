#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace orvx::stress {

struct ChaosOptions {
    std::uint64_t seed = 1;
    std::chrono::seconds duration{15};
    int services = 200;
    std::size_t threads = 4;
};

}  // namespace orvx::stress
