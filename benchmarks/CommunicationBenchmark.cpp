// The communication library alone, from submitting a request to its handler, beside libcurl alone
// and the kernel alone, at several numbers of connections. The main thread submits and waits;
// handlers run on the library's I/O thread and only count. Usage: orvx_bench_communication [ROUNDS
// [REQUESTS]]

#include "Measure.h"
#include "ServerProcess.h"
#include "Yardsticks.h"

#include <orvx/communication/OrvClientCommunicationContext.h>

#include <atomic>

namespace orvx::benchmarks {

namespace {

using communication::HttpResponse;

/// The library, in the way that the yardsticks are used.
class LibraryLoop {
  public:
    LibraryLoop(std::uint16_t port, std::size_t connections) {
        communication::HttpConfig config;
        config.connectionsPerEndpoint = connections;
        context_.setHttpConfig(config);
        context_.init();
        session_ = context_.getClientHttpFactory().createSession(
            "127.0.0.1", port, config, context_.getHealthCheck(), context_.getClientStatistics());
    }

    void run(Method method, const Requests& requests) {
        Countdown left(requests.size());
        std::atomic<std::size_t> good{0};
        const auto handler = [&left, &good, method](const HttpResponse& response) {
            good += isGood(method, response) ? 1U : 0U;
            left.count();
        };
        for (std::size_t i = 0; i < requests.size(); ++i) {
            submit(method, requests, i, handler);
        }
        left.wait();
        settleHeap();
        require(good == requests.size(), "the communication library got a wrong answer");
    }

  private:
    static bool isGood(Method method, const HttpResponse& response) {
        return method == Method::Put
                   ? response.getStatusCode() == HttpResponse::StatusCode::Created &&
                         response.getLocation().has_value()
                   : response.getStatusCode() == HttpResponse::StatusCode::Ok;
    }

    template <typename Handler>
    void submit(Method method, const Requests& requests, std::size_t i, const Handler& handler) {
        const std::string& target = requests.target(method, i);
        const std::string& body = requests.bodies[i];
        switch (method) {
            case Method::Put:
                session_->sendPutRequestJson(target, body.data(), body.size(), handler);
                break;
            case Method::Head:
                session_->sendHeadRequest(target, handler);
                break;
            case Method::Delete:
                session_->sendDeleteRequest(target, "application/json", handler);
        }
    }

    communication::OrvClientCommunicationContext context_;
    std::shared_ptr<communication::IClientHttpSession> session_;
};

const char* nameOf(Method method) {
    return method == Method::Put ? "PUT" : method == Method::Head ? "HEAD" : "DELETE";
}

void measure(Method method, std::uint16_t port, std::size_t connections, std::size_t rounds,
             const Requests& requests) {
    const Yardsticks yardsticks(port, connections, requests);
    LibraryLoop library(port, connections);
    std::vector<double> ratios;
    std::vector<double> floorRatios;
    std::vector<double> costs;
    std::vector<double> curlCosts;
    for (std::size_t round = 0; round <= rounds; ++round) {
        // What is measured stands between two measurements of the yardstick.
        const double before = yardsticks.curl(method);
        const double own = cpuPer(requests.size(), [&] { library.run(method, requests); });
        const double kernel = yardsticks.floor(method);
        const double yardstick = (before + yardsticks.curl(method)) / 2;
        if (round > 0) {  // The first one opens connections.
            ratios.push_back(own / yardstick);
            floorRatios.push_back(kernel / yardstick);
            costs.push_back(own);
            curlCosts.push_back(yardstick);
        }
    }
    Line(std::string(nameOf(method)) + ", " + std::to_string(connections) + " connections")
        .add("ratio", ratios)
        .add("floor", floorRatios)
        .add("microseconds", costs)
        .add("yardstick", curlCosts)
        .print();
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    const std::size_t rounds = argument(argc, argv, 1, 11);
    const Requests requests(argument(argc, argv, 2, 2000));
    useFirstProcessor();
    const ServerProcess server;
    for (const std::size_t connections : {4U, 16U, 64U}) {
        for (const Method method : {Method::Put, Method::Head, Method::Delete}) {
            measure(method, server.port(), connections, rounds, requests);
        }
    }
}
