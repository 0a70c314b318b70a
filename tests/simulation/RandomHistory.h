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

/// The generator of the seeds: splitmix64, because the standard's distributions differ by library.
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

/// The options that matter to the rules.
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

/// What differs, in words.
class Differs : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// "OK/NONE".
std::string textOf(const serviceregistryclient::OrvRegistrationResponse& response);

/// One thing that happens: a letter says what, the numbers choose among what there is at that
/// moment, so that a history stays one when events are taken out of it.
struct Event {
    char what;
    unsigned one;
    unsigned other;
};

using History = std::vector<Event>;

/// "r3.1 a0.7 ..." and back.
std::string textOf(const History& history);
History historyFrom(const std::string& text);

/// What a program plays.
struct Game {
    /// Of the program, for its help.
    std::string purpose;
    /// What a run without a difference has shown.
    std::string success;
    /// The same for the same seed, on every machine.
    std::function<History(std::uint64_t seed, std::size_t events)> historyOf;
    /// With the options of the seed. Empty when nothing differs; otherwise the difference.
    std::function<std::string(std::uint64_t seed, const History& history)> play;
};

/// The program: plays histories until one differs, and prints a command that shows the difference
/// with as few events as possible. Returns the exit status.
int playHistories(int argc, char** argv, const Game& game);

}  // namespace orvx::simulation
