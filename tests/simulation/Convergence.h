#pragma once

#include "RandomHistory.h"

#include <cstdint>
#include <string>

namespace orvx::simulation::convergence {

/// Makes a history with faults.
History historyOf(std::uint64_t seed, std::size_t events);

/// Plays a history on a client with resilience and on a registry that fails. Then the faults end.
/// Within two check intervals, the longest step of the back-off and the rest of the last
/// Retry-After the registry must hold the latest description of each path among those that are
/// announced and not withdrawn, and nothing else; each callback must have been called once. Returns
/// the difference; empty if there is none.
std::string play(std::uint64_t seed, const History& history);

}  // namespace orvx::simulation::convergence
