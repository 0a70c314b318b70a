// The whole library, from the call to the user's callback, with the listener set: registrations,
// checks and withdrawals compared with the same requests through libcurl alone. The main thread
// calls and waits; callbacks run on the client's callback thread and only count.
// Usage: orvx_bench_client [ROUNDS [SERVICES [tls]]]

#include "ClientLoad.h"
#include "Measure.h"
#include "RunningContext.h"
#include "ServerProcess.h"
#include "Yardsticks.h"

#include <array>
#include <chrono>
#include <optional>
#include <string_view>

namespace orvx::benchmarks {

namespace {

/// The ratios of one round: registration, check, withdrawal.
using Round = std::array<double, 3>;

class ClientBenchmark {
  public:
    ClientBenchmark(std::size_t services, Transport transport)
        : transport_(transport), requests_(services) {
        context_.client().addServiceRegisterStatusListener(
            [this](const auto&, bool) { ++notifications_; });
    }

    /// Absent if the machine was so busy that the first check began too early, or the second one
    /// before the end: then the figures include other work.
    std::optional<Round> measure() {
        ClientLoad load(context_.client(), server_.address(transport_).port);
        const double put = yardsticks_.curl(Method::Put);
        const double head = yardsticks_.curl(Method::Head);
        const std::uint64_t heads = server_.heads() + requests_.size();
        const double registration = cost([&] { load.registerAll(requests_.services); });
        const double registered = registration / ((put + yardsticks_.curl(Method::Put)) / 2);
        const double deletion = yardsticks_.curl(Method::Delete);
        const bool isQuiet = server_.heads() + requests_.size() == heads;
        const double check = cost([&] { server_.waitForHeads(heads); });
        const double withdrawal = cost([&] { load.withdrawAll(); });
        const bool isWhole = server_.heads() == heads;
        const double checked = check / ((head + yardsticks_.curl(Method::Head)) / 2);
        const double withdrawn = withdrawal / ((deletion + yardsticks_.curl(Method::Delete)) / 2);
        return isQuiet && isWhole ? std::optional(Round{registered, checked, withdrawn})
                                  : std::nullopt;
    }

  private:
    double cost(const std::function<void()>& work) const {
        return cpuPer(requests_.size(), [&work] {
            work();
            settleHeap();
        });
    }

    const Transport transport_;
    ServerProcess server_;
    const Requests requests_;
    const Yardsticks yardsticks_{server_.address(transport_), kConnections, requests_};
    std::size_t notifications_ = 0;
    RunningContext context_{std::chrono::seconds(1), transport_};
};

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    const std::size_t rounds = argument(argc, argv, 1, 11);
    useFirstProcessor();
    const bool isTls = argc > 3 && argv[3] == std::string_view("tls");
    ClientBenchmark benchmark(argument(argc, argv, 2, 1000),
                              isTls ? Transport::Tls : Transport::Plain);
    benchmark.measure();  // Opens connections.
    std::array<std::vector<double>, 3> ratios;
    for (std::size_t tries = 0; ratios[0].size() < rounds; ++tries) {
        require(tries < 3 * rounds + 10, "the machine is too busy");
        if (const auto round = benchmark.measure()) {
            for (std::size_t i = 0; i < ratios.size(); ++i) {
                ratios[i].push_back((*round)[i]);
            }
        }
    }
    Line("registration").add("ratio", ratios[0]).print();
    Line("check").add("ratio", ratios[1]).print();
    Line("withdrawal").add("ratio", ratios[2]).print();
}
