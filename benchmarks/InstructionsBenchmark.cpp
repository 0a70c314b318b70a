// A fixed amount of work for callgrind, with one request outstanding at a time. Instructions before
// the work, and those for the start and end of the objects, go to dumps with other names than those
// that scripts/bench reads. The main thread sends each request after the answer to the previous
// one.
// Usage: valgrind --tool=callgrind orvx_bench_instructions

#include "Measure.h"
#include "Requests.h"
#include "RunningContext.h"
#include "ServerProcess.h"

#include <orvx/communication/OrvClientCommunicationContext.h>

#include <valgrind/callgrind.h>

namespace orvx::benchmarks {

namespace {

using communication::HttpResponse;
using serviceregistryclient::IOrvServiceRegistryClient;
using serviceregistryclient::OrvRegistrationResponse;

constexpr std::size_t kWarmUp = 20;
constexpr std::size_t kServices = 300;
constexpr std::size_t kRequests = 1000;

void communicate(const ServerProcess& server, const Requests& requests, std::size_t count) {
    communication::OrvClientCommunicationContext context;
    context.init();
    const auto session = context.getClientHttpFactory().createSession(
        "127.0.0.1", server.port(), {}, context.getHealthCheck(), context.getClientStatistics());
    for (std::size_t i = 0; i < kWarmUp + count; ++i) {
        if (i == kWarmUp) {
            CALLGRIND_DUMP_STATS_AT("before");
        }
        Countdown left(1);
        const std::string& body = requests.bodies[i % requests.size()];
        session->sendPutRequestJson(requests.uris[i % requests.size()], body.data(), body.size(),
                                    [&left](const HttpResponse&) { left.count(); });
        left.wait();
    }
    CALLGRIND_DUMP_STATS_AT("communication");
}

class Client {
  public:
    Client(ServerProcess& server, const Requests& requests)
        : server_(server), requests_(requests) {}

    void run() {
        for (std::size_t i = 0; i < requests_.size(); ++i) {
            if (i == kWarmUp) {
                CALLGRIND_DUMP_STATS_AT("before");
            }
            registerOne(i);
        }
        CALLGRIND_DUMP_STATS_AT("registration");
        server_.waitForHeads(requests_.size());
        CALLGRIND_DUMP_STATS_AT("check");
        for (std::size_t i = 0; i < requests_.size(); ++i) {
            withdrawOne(i);
        }
        CALLGRIND_DUMP_STATS_AT("withdrawal");
        require(server_.heads() == requests_.size(), "the machine is too busy");
    }

  private:
    void registerOne(std::size_t i) {
        Countdown left(1);
        handles_.push_back(context_.client().registerServiceAtRegistry(
            registryAt(server_.port()), requests_.services[i],
            [&left](const OrvRegistrationResponse&) { left.count(); }));
        left.wait();
    }
    void withdrawOne(std::size_t i) {
        Countdown left(1);
        handles_[i]([&left](const OrvRegistrationResponse&) { left.count(); });
        left.wait();
    }

    ServerProcess& server_;
    const Requests& requests_;
    RunningContext context_{std::chrono::seconds(6)};
    std::vector<IOrvServiceRegistryClient::UnregisterHandle> handles_;
};

}  // namespace

}  // namespace orvx::benchmarks

int main() {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    ServerProcess server;
    const Requests requests(kWarmUp + kServices);
    communicate(server, requests, kRequests);
    Client(server, requests).run();
}
