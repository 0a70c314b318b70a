#pragma once

#include "Model.h"

#include <cstdint>
#include <string>

namespace orvx::simulation {

/// Returns the same options for the same seed on every machine.
Options optionsOf(std::uint64_t seed);
History historyOf(std::uint64_t seed, std::size_t events);

/// Plays a history on a client and on the model. Returns the number of the first event after which
/// they differ, and the difference; empty if they agree.
std::string play(const Options& options, const History& history);

}  // namespace orvx::simulation
