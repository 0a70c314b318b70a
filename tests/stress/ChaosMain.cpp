// Runs chaos and prints the result for each guarantee. Exits with 1 if one was broken. A short run
// comes first, so that memory that a process allocates once and keeps does not count as lost.
//
// Threads: main() only.

#include <malloc.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <random>

#include "Chaos.h"
#include "Descriptors.h"
#include "Process.h"
#include "ResilientChaos.h"

namespace {

using namespace orvx;
using stress::Chaos;
using stress::ChaosOptions;
using stress::ResilientChaos;

struct Means {
    std::size_t descriptors = testing::openDescriptors();
    std::size_t threads = testing::threadNames().size();
    std::size_t memory = ::mallinfo2().uordblks;
};

template <typename Kind>
bool play(const ChaosOptions& options, std::ostream& out) {
    Kind chaos(options);
    chaos.run();
    return chaos.judge(out);
}

// Sanitizers have their own allocator and check for leaks themselves. Caches of the C library, and
// arenas of ended threads, are not leaks.
bool judgeMeans(const Means& before, const Means& after, std::ostream& out) {
    constexpr std::size_t kCaches = 512 * 1024;
    const bool isGood = after.descriptors == before.descriptors &&
                        after.threads == before.threads && after.memory <= before.memory + kCaches;
    out << "p5 nothing is left behind: " << (isGood ? "kept" : "BROKEN") << "; descriptors "
        << before.descriptors << " then " << after.descriptors << ", threads " << before.threads
        << " then " << after.threads << ", bytes in use " << before.memory << " then "
        << after.memory << std::endl;
    return isGood;
}

}  // namespace

int main(int argc, char** argv) {
    ChaosOptions options;
    options.seed = std::random_device()();
    long seconds = options.duration.count();
    bool isResilient = false;
    CLI::App app("Clients under chaos: a registry behind a network that fails");
    app.add_option("--seed", options.seed, "Of all decisions; drawn when absent");
    app.add_option("--seconds", seconds, "How long, without the judgement")
        ->check(CLI::Range(1, 86400));
    app.add_flag("--resilience", isResilient, "With resilience: the registry must converge");
    const auto* const services =
        app.add_option("--services", options.services, "In one context; in all, with resilience")
            ->check(CLI::Range(4, 10000));
    app.add_option("--threads", options.threads, "Of users")->check(CLI::Range(1, 64));
    CLI11_PARSE(app, argc, argv);
    std::cout << "seed " << options.seed << std::endl;
    if (isResilient && services->count() == 0) {
        options.services = 300;
    }
    const auto playOne = isResilient ? play<ResilientChaos> : play<Chaos>;

    options.duration = std::chrono::seconds(2);
    bool isGood = playOne(options, std::cout);
    const Means before;
    options.duration = std::chrono::seconds(seconds);
    isGood = playOne(options, std::cout) && isGood;
    isGood = judgeMeans(before, Means(), std::cout) && isGood;
    return isGood ? 0 : 1;
}
