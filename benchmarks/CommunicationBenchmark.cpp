// The communication library alone, from submitting a request to its handler, compared with libcurl
// alone: with several numbers of connections, and over TLS. Other ways to send the same requests
// are compared with libcurl, too. The main thread submits and waits; handlers run on the library's
// I/O thread and only count.
// Usage: orvx_bench_communication [ROUNDS [REQUESTS]]

#include "Measure.h"
#include "RunningContext.h"
#include "ServerProcess.h"
#include "Yardsticks.h"

#include <orvx/communication/OrvClientCommunicationContext.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <utility>

namespace orvx::benchmarks {

namespace {

using communication::HttpResponse;

/// The library, used in the same way as libcurl.
class LibraryLoop {
  public:
    LibraryLoop(const Address& server, std::size_t connections) {
        const auto config = httpConfig(connections, server.transport);
        context_.setHttpConfig(config);
        context_.init();
        session_ = context_.getClientHttpFactory().createSession("127.0.0.1", server.port, config,
                                                                 context_.getHealthCheck(),
                                                                 context_.getClientStatistics());
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

std::string nameOf(Method method) {
    return method == Method::Put ? "PUT" : method == Method::Head ? "HEAD" : "DELETE";
}

/// The cost of the measured way, and of libcurl before and after it.
class Ratio {
  public:
    explicit Ratio(std::string name) : name_(std::move(name)) {}

    void measure(const Yardsticks& yardsticks, Method method, const std::function<double()>& cost) {
        const double before = yardsticks.curl(method);
        const double own = cost();
        const double yardstick = (before + yardsticks.curl(method)) / 2;
        ratios_.push_back(own / yardstick);
        costs_.push_back(own);
        yardsticks_.push_back(yardstick);
    }
    void print() const {
        Line(name_)
            .add("ratio", ratios_)
            .add("microseconds", costs_)
            .add("yardstick", yardsticks_)
            .print();
    }

  private:
    const std::string name_;
    std::vector<double> ratios_;
    std::vector<double> costs_;
    std::vector<double> yardsticks_;
};

class CommunicationBenchmark {
  public:
    CommunicationBenchmark(std::size_t rounds, std::size_t requests)
        : rounds_(rounds), requests_(requests) {}

    void measureLibrary(Transport transport, std::size_t connections) const {
        const Address address = server_.address(transport);
        const Yardsticks yardsticks(address, connections, requests_);
        LibraryLoop library(address, connections);
        for (const Method method : kMethods) {
            library.run(method, requests_);  // Opens the connections.
            Ratio ratio(nameOf(method) + (", " + std::to_string(connections) + " connections") +
                        (transport == Transport::Tls ? ", TLS" : ""));
            for (std::size_t round = 0; round < rounds_; ++round) {
                ratio.measure(yardsticks, method, [&] {
                    return cpuPer(requests_.size(), [&] { library.run(method, requests_); });
                });
            }
            ratio.print();
        }
    }

    void measureOthers() const {
        using Kind = Yardsticks::Kind;
        const Yardsticks yardsticks(server_.address(), kConnections, requests_);
        for (const auto& [kind, name] : {std::pair(Kind::Kernel, "kernel"),
                                         {Kind::Httplib, "cpp-httplib"},
                                         {Kind::Easy, "libcurl easy"},
                                         {Kind::Threads, "one thread a connection"}}) {
            for (const Method method : kMethods) {
                yardsticks.cost(kind, method);  // Opens the connections.
                Ratio ratio(nameOf(method) + std::string(", ") + name);
                for (std::size_t round = 0; round < rounds_; ++round) {
                    ratio.measure(yardsticks, method,
                                  [&, kind = kind] { return yardsticks.cost(kind, method); });
                }
                ratio.print();
            }
        }
    }

  private:
    static constexpr std::array kMethods{Method::Put, Method::Head, Method::Delete};

    const std::size_t rounds_;
    const ServerProcess server_;
    const Requests requests_;
};

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    const CommunicationBenchmark benchmark(argument(argc, argv, 1, 11),
                                           argument(argc, argv, 2, 2000));
    for (const std::size_t connections : {4U, 16U, 64U}) {
        benchmark.measureLibrary(Transport::Plain, connections);
    }
    benchmark.measureLibrary(Transport::Tls, kConnections);
    benchmark.measureOthers();
}
