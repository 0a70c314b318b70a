// One thread, no lock.

#include "KeptConnections.h"

#include "Measure.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace orvx::benchmarks {

KeptConnections::KeptConnections(std::uint16_t port, std::size_t count) : connections_(count) {
    for (std::size_t i = 0; i < count; ++i) {
        connections_[i].socket = connectTo(port);
        follow(connections_[i].socket, i);
        free_.push_back(i);
    }
}

KeptConnections::~KeptConnections() {
    for (const Connection& connection : connections_) {
        ::close(connection.socket);
    }
}

void KeptConnections::send(std::string request, Time planned) {
    if (free_.empty()) {
        waiting_.push_back({std::move(request), planned});
        return;
    }
    const std::size_t index = free_.back();
    free_.pop_back();
    begin(index, {std::move(request), planned});
}

void KeptConnections::begin(std::size_t index, const Request& request) {
    Connection& connection = connections_[index];
    connection.planned = request.planned;
    connection.isHead = request.text.rfind("HEAD ", 0) == 0;
    connection.answer.clear();
    require(::send(connection.socket, request.text.data(), request.text.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(request.text.size()),
            "a request is not sent");
}

void KeptConnections::receive() {
    std::array<epoll_event, 64> events{};
    const int ready = ::epoll_wait(epoll(), events.data(), events.size(), 0);
    for (int i = 0; i < ready; ++i) {
        read(events[static_cast<std::size_t>(i)].data.u64);
    }
}

void KeptConnections::read(std::size_t index) {
    Connection& connection = connections_[index];
    std::array<char, 4096> bytes;
    const auto size = ::recv(connection.socket, bytes.data(), bytes.size(), 0);
    require(size > 0, "a connection has ended");
    connection.answer.append(bytes.data(), static_cast<std::size_t>(size));
    if (!isWhole(connection)) {
        return;
    }
    const std::chrono::duration<double, std::milli> latency =
        Time::clock::now() - connection.planned;
    latencies_.push_back(latency.count());
    require(connection.answer.compare(9, 2, "20") == 0, "a wrong answer");
    handler_(connection.answer);
    if (waiting_.empty()) {
        free_.push_back(index);
        return;
    }
    const Request next = std::move(waiting_.front());
    waiting_.pop_front();
    begin(index, next);
}

bool KeptConnections::isWhole(const Connection& connection) {
    const std::string& answer = connection.answer;
    constexpr std::string_view kLength = "\r\nContent-Length: ";
    const auto end = answer.find("\r\n\r\n");
    if (end == std::string::npos || connection.isHead) {
        return end != std::string::npos;
    }
    const auto length = answer.find(kLength);
    require(length < end, "an answer has no length");
    return answer.size() - end - 4 >= std::stoul(answer.substr(length + kLength.size(), 10));
}

}  // namespace orvx::benchmarks
