#pragma once

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvx::simulation {

using Milliseconds = std::chrono::milliseconds;

/// The random generator: splitmix64, because the standard's distributions differ between libraries.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    unsigned below(unsigned limit) {
        state_ += 0x9e3779b97f4a7c15U;
        std::uint64_t mixed = state_;
        mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
        return static_cast<unsigned>((mixed ^ (mixed >> 31U)) % limit);
    }
    template <typename Value>
    Value among(std::initializer_list<Value> values) {
        return values.begin()[below(static_cast<unsigned>(values.size()))];
    }

  private:
    std::uint64_t state_;
};

/// The options that influence the rules.
struct Options {
    bool retry = true;
    bool retryOnStatus = false;
    bool check = true;
    std::uint16_t maxRetries = 0;
    Milliseconds retryInterval{500};
    std::chrono::seconds checkInterval{10};
    Milliseconds headTimeout{3000};

    void set(serviceregistryclient::OrvServiceRegistryContext& context) const;
};

/// Describes a difference.
class Differs : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The outcome as text, for example "OK/NONE".
std::string textOf(const serviceregistryclient::OrvRegistrationResponse& response);

/// One event: a letter names its kind, and the numbers select among the objects at that moment, so
/// that a history without some of its events is still a history.
struct Event {
    char what;
    unsigned one;
    unsigned other;
};

using History = std::vector<Event>;

/// Converts a history to text, "r3.1 a0.7 ...", and back.
std::string textOf(const History& history);
History historyFrom(const std::string& text);

/// A program that plays histories.
struct Game {
    /// The purpose of the program, for its help.
    std::string purpose;
    /// The text for a run without a difference.
    std::string success;
    /// Generates the same history for the same seed on every machine.
    std::function<History(std::uint64_t seed, std::size_t events)> historyOf;
    /// Plays a history with the options of the seed. Returns the difference; empty if there is
    /// none.
    std::function<std::string(std::uint64_t seed, const History& history)> play;
};

/// Plays histories until one differs, and prints a command that shows the difference with as few
/// events as possible. Returns the exit status of the program.
int playHistories(int argc, char** argv, const Game& game);

}  // namespace orvx::simulation
