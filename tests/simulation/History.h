#pragma once

#include "Model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orvx::simulation {

/// One thing that happens: a letter says what, the numbers choose among what there is at that
/// moment, so that a history stays one when events are taken out of it.
struct Event {
    char what;
    unsigned one;
    unsigned other;
};

using History = std::vector<Event>;

/// The same for the same seed, on every machine.
Options optionsOf(std::uint64_t seed);
History historyOf(std::uint64_t seed, std::size_t events);

/// "r3.1 a0.7 ..." and back.
std::string textOf(const History& history);
History historyFrom(const std::string& text);

/// Runs a client and the model side by side. Empty when they agree after every event; otherwise the
/// number of the event and what differs.
std::string play(const Options& options, const History& history);

/// As few of the events as still make them differ.
History shortened(const Options& options, History history);

}  // namespace orvx::simulation
