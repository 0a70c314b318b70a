// The number of wake-ups of the library's threads for a check when checks fall due one at a time:
// the services are registered at equal intervals, so that their checks fall due at the same
// intervals. Counts how often a thread goes to sleep, which it does once for each wake-up. The main
// thread registers, then only sleeps.
// Usage: orvx_bench_wakeups [SERVICES [SECONDS]]

#include "ClientLoad.h"
#include "Measure.h"
#include "Process.h"
#include "RunningContext.h"
#include "ServerProcess.h"

#include <thread>

namespace orvx::benchmarks {

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

double wakeUpsPerCheck(std::size_t services, seconds interval) {
    ServerProcess server;
    RunningContext context(interval);
    ClientLoad load(context.client(), server.port());
    const Requests requests(services);
    const std::chrono::nanoseconds distance =
        std::chrono::nanoseconds(interval) / static_cast<int>(services);
    const auto begin = steady_clock::now();
    auto next = begin;
    for (const auto& service : requests.services) {
        std::this_thread::sleep_until(next);
        load.registerAll({service});
        next += distance;
    }
    const std::uint64_t checksBefore = server.heads();
    const std::uint64_t before = sleepsOfOtherThreads();
    std::this_thread::sleep_until(begin + 2 * interval - interval / 20);
    const std::uint64_t after = sleepsOfOtherThreads();
    const std::uint64_t checks = server.heads() - checksBefore;
    require(checks > services * 8 / 10 && checks <= services, "the machine is too busy");
    return static_cast<double>(after - before) / static_cast<double>(checks);
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    const std::size_t services = argument(argc, argv, 1, 1000);
    const std::chrono::seconds interval(argument(argc, argv, 2, 10));
    Line("wake-ups for a check").add("count", wakeUpsPerCheck(services, interval)).print();
}
