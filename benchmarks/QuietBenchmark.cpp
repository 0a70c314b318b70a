// Whether a process with 1,000 registered services sleeps between checks: the number of times that
// a thread of the library goes to sleep while nothing is due. A thread goes to sleep once for each
// wake-up. The main thread only sleeps.
// Usage: orvx_bench_quiet [ROUNDS]

#include "ClientLoad.h"
#include "Measure.h"
#include "Process.h"
#include "RunningContext.h"
#include "ServerProcess.h"

#include <thread>

namespace orvx::benchmarks {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr std::size_t kServices = 1000;
constexpr seconds kCheckInterval(4);
constexpr milliseconds kRest(500);
constexpr seconds kWindow(2);

/// Begins some time after a burst.
double wakeUps() {
    std::this_thread::sleep_for(kRest);
    const std::uint64_t before = sleepsOfOtherThreads();
    std::this_thread::sleep_for(kWindow);
    return static_cast<double>(sleepsOfOtherThreads() - before);
}

std::vector<double> measure(std::size_t rounds) {
    std::vector<double> windows;
    ServerProcess server;
    RunningContext context(kCheckInterval);
    ClientLoad load(context.client(), server.port());
    load.registerAll(Requests(kServices).services);
    windows.push_back(wakeUps());
    for (std::size_t round = 1; round < rounds; ++round) {
        server.waitForHeads(round * kServices);
        windows.push_back(wakeUps());
        require(server.heads() == round * kServices, "a check came into the window");
    }
    return windows;
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    Line("wake-ups in 2 s without a check")
        .add("count", measure(argument(argc, argv, 1, 4)))
        .print();
}
