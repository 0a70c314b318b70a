#pragma once

#include <cstdint>

namespace orvx::simulation {

/// Later delays of back-offs are determined by this seed.
void seedJitter(std::uint64_t seed);

}  // namespace orvx::simulation
