// Plays random histories on the client and on a model of its rules. See --help.
#include "History.h"

#include <CLI/CLI.hpp>

#include <iostream>

using namespace orvx::simulation;

namespace {

/// Says what differs, and how to see it again; true when nothing does.
bool check(const std::string& program, std::uint64_t seed, const History& history) {
    const Options options = optionsOf(seed);
    if (play(options, history).empty()) {
        return true;
    }
    const History shorter = shortened(options, history);
    std::cerr << "seed " << seed << ": " << play(options, shorter) << "\nagain with: " << program
              << " --first " << seed << " --replay '" << textOf(shorter) << "'\n";
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Plays random histories on the client and on a model of its rules"};
    std::uint64_t first = 1;
    std::uint64_t seeds = 1000;
    std::size_t events = 500;
    std::string replay;
    app.add_option("--first", first, "the first seed");
    app.add_option("--seeds", seeds, "how many seeds");
    app.add_option("--events", events, "events of each history");
    app.add_option("--replay", replay, "this history, with the options of the first seed");
    CLI11_PARSE(app, argc, argv);

    if (!replay.empty()) {
        return check(argv[0], first, historyFrom(replay)) ? 0 : 1;
    }
    for (std::uint64_t seed = first; seed < first + seeds; ++seed) {
        if (!check(argv[0], seed, historyOf(seed, events))) {
            return 1;
        }
    }
    std::cout << seeds << " histories of " << events << " events from seed " << first
              << ": the client and the model agree\n";
    return 0;
}
