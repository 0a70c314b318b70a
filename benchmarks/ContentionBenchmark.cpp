// Whether several registering threads slow each other down: the calls per second of 2, 4 and 8
// threads together, compared with one thread. Each thread of a round registers its share at a
// registry that never answers.
// Usage: orvx_bench_contention [ROUNDS]

#include "Measure.h"
#include "Requests.h"
#include "RunningContext.h"
#include "SilentRegistry.h"

#include <map>
#include <thread>

namespace orvx::benchmarks {

namespace {

constexpr std::size_t kCalls = 8000;

double microsecondsPerCall(std::size_t threads, const Requests& requests) {
    const SilentRegistry silent;
    const auto registry = registryAt(silent.port());
    RunningContext context(std::chrono::hours(1));
    const std::size_t share = kCalls / threads;
    const auto registerShare = [&](std::size_t first) {
        for (std::size_t i = first; i < first + share; ++i) {
            context.client().registerServiceAtRegistry(registry, requests.services[i], {});
        }
    };
    return wallPer(kCalls, [&] {
        std::vector<std::thread> workers;
        for (std::size_t i = 0; i < threads; ++i) {
            workers.emplace_back(registerShare, i * share);
        }
        for (std::thread& worker : workers) {
            worker.join();
        }
    });
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    const std::size_t rounds = argument(argc, argv, 1, 11);
    const Requests requests(kCalls);
    std::map<std::size_t, std::vector<double>> ratios;
    microsecondsPerCall(1, requests);
    for (std::size_t round = 0; round < rounds; ++round) {
        for (const std::size_t threads : {2U, 4U, 8U}) {
            const double alone = microsecondsPerCall(1, requests);
            ratios[threads].push_back(alone / microsecondsPerCall(threads, requests));
        }
    }
    for (const auto& [threads, ratio] : ratios) {
        Line(std::to_string(threads) + " threads").add("ratio", ratio).print();
    }
}
