#pragma once

#include <cstdint>

namespace orvx::simulation {

/// From here on the delays of back-offs are those of this seed.
void seedJitter(std::uint64_t seed);

}  // namespace orvx::simulation
