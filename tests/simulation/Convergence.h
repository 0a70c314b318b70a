#pragma once

#include "RandomHistory.h"

#include <cstdint>
#include <string>

namespace orvx::simulation::convergence {

/// A history with faults.
History historyOf(std::uint64_t seed, std::size_t events);

/// Plays a history on a client with resilience and on a registry that fails. Then the faults end,
/// and within two check intervals, the longest step of the back-off and what is left of the last
/// Retry-After the registry must hold the latest description of each path among those that are
/// announced and not withdrawn, and nothing else; each callback must have been called once. Empty
/// when all of this is so; otherwise what differs.
std::string play(std::uint64_t seed, const History& history);

}  // namespace orvx::simulation::convergence
