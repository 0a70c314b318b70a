#pragma once

#include "Source.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvx::benchmarks {

/// Connections to one server that stay open, each with one request at a time.
class KeptConnections : public Source {
  public:
    KeptConnections(std::uint16_t port, std::size_t count);
    ~KeptConnections() override;

    /// Sends a request as soon as a connection is free. Its latency counts from `planned`, so that
    /// the figures include the time in which requests wait for the server.
    void send(std::string request, Time planned);
    /// Throws if an answer is neither 200 nor 201, or if a connection ends.
    void receive() override;

    /// Called with each complete answer.
    void onAnswer(std::function<void(std::string_view)> handler) { handler_ = std::move(handler); }
    /// The number of requests without an answer, sent or not.
    std::size_t outstanding() const { return waiting_.size() + connections_.size() - free_.size(); }
    /// The latencies of all answers since the last call, in milliseconds.
    std::vector<double> takeLatencies() { return std::exchange(latencies_, {}); }

  private:
    struct Request {
        std::string text;
        Time planned;
    };
    struct Connection {
        int socket = -1;
        Time planned{};
        bool isHead = false;
        std::string answer{};
    };

    void begin(std::size_t index, const Request& request);
    void read(std::size_t index);
    static bool isWhole(const Connection& connection);

    std::vector<Connection> connections_;
    std::vector<std::size_t> free_;
    std::deque<Request> waiting_;
    std::vector<double> latencies_;
    std::function<void(std::string_view)> handler_ = [](std::string_view) {};
};

}  // namespace orvx::benchmarks
