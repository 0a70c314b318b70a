// Random histories: as text, as a command line, and shortened if they differ. One thread.
#include "RandomHistory.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <sstream>

namespace orvx::simulation {

namespace {

/// Removes events as long as the history still differs.
History shortened(const Game& game, std::uint64_t seed, History history) {
    for (std::size_t chunk = history.size() / 2; chunk > 0; chunk /= 2) {
        for (std::size_t at = 0; at + chunk <= history.size();) {
            History shorter = history;
            const auto begin = shorter.begin() + static_cast<std::ptrdiff_t>(at);
            shorter.erase(begin, begin + static_cast<std::ptrdiff_t>(chunk));
            if (game.play(seed, shorter).empty()) {
                at += chunk;
            } else {
                history = std::move(shorter);
            }
        }
    }
    return history;
}

/// Prints the difference and the command that shows it again. Returns true if there is none.
bool check(const Game& game, const std::string& program, std::uint64_t seed,
           const History& history) {
    if (game.play(seed, history).empty()) {
        return true;
    }
    const History shorter = shortened(game, seed, history);
    std::cerr << "seed " << seed << ": " << game.play(seed, shorter) << "\nagain with: " << program
              << " --first " << seed << " --replay '" << textOf(shorter) << "'\n";
    return false;
}

}  // namespace

void Options::set(serviceregistryclient::OrvServiceRegistryContext& context) const {
    context.enableRetry(retry);
    context.enableRetryOnHttpStatus(retryOnStatus);
    context.enableCheck(check);
    context.setInitialMaxRetryCount(maxRetries);
    context.setRetryInterval(retryInterval);
    context.setCheckInterval(checkInterval);
    context.setHeadTimeout(headTimeout);
}

std::string textOf(const serviceregistryclient::OrvRegistrationResponse& response) {
    using serviceregistryclient::OrvRegistrationResponse;
    return OrvRegistrationResponse::statusString(response.status) + std::string("/") +
           OrvRegistrationResponse::errorCodeString(response.errorCode);
}

std::string textOf(const History& history) {
    std::ostringstream text;
    for (const Event& event : history) {
        text << event.what << event.one << '.' << event.other << ' ';
    }
    return text.str();
}

History historyFrom(const std::string& text) {
    std::istringstream stream(text);
    History history;
    Event event{};
    char dot = 0;
    while (stream >> event.what >> event.one >> dot >> event.other) {
        history.push_back(event);
    }
    return history;
}

int playHistories(int argc, char** argv, const Game& game) {
    CLI::App app{game.purpose};
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
        return check(game, argv[0], first, historyFrom(replay)) ? 0 : 1;
    }
    for (std::uint64_t seed = first; seed < first + seeds; ++seed) {
        if (!check(game, argv[0], seed, game.historyOf(seed, events))) {
            return 1;
        }
    }
    std::cout << seeds << " histories of " << events << " events from seed " << first << ": "
              << game.success << '\n';
    return 0;
}

}  // namespace orvx::simulation
