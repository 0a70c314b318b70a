#pragma once

#include "Model.h"

#include <cstdint>
#include <string>

namespace orvx::simulation {

/// The same for the same seed, on every machine.
Options optionsOf(std::uint64_t seed);
History historyOf(std::uint64_t seed, std::size_t events);

/// Runs a client and the model side by side. Empty when they agree after every event; otherwise the
/// number of the event and what differs.
std::string play(const Options& options, const History& history);

}  // namespace orvx::simulation
