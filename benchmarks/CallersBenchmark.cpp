// The cost of a registration for its caller, in wall-clock time: with nothing outstanding, and
// while 10,000 requests wait for a registry that never answers. The main thread registers and, with
// nothing outstanding, waits for each callback.
// Usage: orvx_bench_callers [ROUNDS]

#include "Measure.h"
#include "Requests.h"
#include "RunningContext.h"
#include "ServerProcess.h"
#include "SilentRegistry.h"

namespace orvx::benchmarks {

namespace {

using serviceregistryclient::OrvRegistrationResponse;

constexpr std::chrono::hours kNoCheck(1);
constexpr std::size_t kCalls = 2000;
constexpr std::size_t kOutstanding = 10000;

std::vector<double> withNothingOutstanding(const Requests& requests) {
    ServerProcess server;
    const auto registry = registryAt(server.port());
    RunningContext context(kNoCheck);
    std::vector<double> costs;
    for (std::size_t i = 0; i < kCalls; ++i) {
        Countdown left(1);
        costs.push_back(wallPer(1, [&] {
            context.client().registerServiceAtRegistry(
                registry, requests.services[i],
                [&left](const OrvRegistrationResponse&) { left.count(); });
        }));
        left.wait();
    }
    return costs;
}

std::vector<double> withManyOutstanding(const Requests& requests) {
    const SilentRegistry silent;
    const auto registry = registryAt(silent.port());
    RunningContext context(kNoCheck);
    std::vector<double> costs;
    for (std::size_t i = 0; i < kOutstanding + kCalls; ++i) {
        const double cost = wallPer(1, [&] {
            context.client().registerServiceAtRegistry(registry, requests.services[i % kCalls],
                                                       [](const OrvRegistrationResponse&) {});
        });
        if (i >= kOutstanding) {
            costs.push_back(cost);
        }
    }
    return costs;
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    const std::size_t rounds = argument(argc, argv, 1, 5);
    const Requests requests(kCalls);
    std::vector<double> medians;
    std::vector<double> tails;
    for (std::size_t round = 0; round < rounds; ++round) {
        const auto idle = withNothingOutstanding(requests);
        const auto busy = withManyOutstanding(requests);
        medians.push_back(median(busy) / median(idle));
        tails.push_back(quantile(busy, 0.99) / median(idle));
    }
    Line("median").add("ratio", medians).print();
    Line("99th percentile").add("ratio", tails).print();
}
