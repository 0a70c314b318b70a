// A hand-written client: one send, one receive for each request.
// One thread, no lock.

#include "EpollLoop.h"

#include "Measure.h"
#include "Source.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvx::benchmarks {

namespace {

constexpr std::array<std::string_view, 3> kMethods{"PUT ", "HEAD ", "DELETE "};
constexpr std::array<std::string_view, 3> kHeaders{
    "Content-Type: application/json\r\nAccept: application/json\r\nContent-Length: ", "\r\n",
    "Content-Type: application/json\r\n\r\n"};

}  // namespace

EpollLoop::EpollLoop(std::uint16_t port, std::size_t connections)
    : host_(" HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
            "\r\nUser-Agent: " + kUserAgent + "\r\n"),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    for (std::size_t i = 0; i < connections; ++i) {
        sockets_.push_back(connectTo(port));
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = sockets_.back();
        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, sockets_.back(), &event);
    }
}

EpollLoop::~EpollLoop() {
    for (const int socket : sockets_) {
        ::close(socket);
    }
    ::close(epoll_);
}

void EpollLoop::run(Method method, const Requests& requests) {
    next_ = 0;
    done_ = 0;
    for (const int socket : sockets_) {
        begin(socket, method, requests);
    }
    std::array<epoll_event, 64> events{};
    while (done_ < requests.size()) {
        const int ready = ::epoll_wait(epoll_, events.data(), events.size(), -1);
        for (int i = 0; i < ready; ++i) {
            end(events[static_cast<std::size_t>(i)].data.fd, method, requests);
        }
    }
}

void EpollLoop::begin(int socket, Method method, const Requests& requests) {
    if (next_ == requests.size()) {
        return;
    }
    const auto kind = static_cast<std::size_t>(method);
    text_.assign(kMethods[kind]);
    text_ += requests.target(method, next_);
    text_ += host_;
    text_ += kHeaders[kind];
    if (method == Method::Put) {
        const std::string& body = requests.bodies[next_];
        text_ += std::to_string(body.size());
        text_ += "\r\n\r\n";
        text_ += body;
    }
    ++next_;
    require(::send(socket, text_.data(), text_.size(), MSG_NOSIGNAL) > 0, "the server has gone");
}

void EpollLoop::end(int socket, Method method, const Requests& requests) {
    std::array<char, 1024> bytes;
    const auto size = ::recv(socket, bytes.data(), bytes.size(), 0);
    require(size > 12, "the server has gone");
    const std::string_view answer(bytes.data(), static_cast<std::size_t>(size));
    const bool isPut = method == Method::Put;
    require(answer.substr(9, 3) == (isPut ? "201" : "200") &&
                (!isPut || answer.find("\r\nLocation: ") != std::string_view::npos),
            "the floor got a wrong answer");
    ++done_;
    begin(socket, method, requests);
}

}  // namespace orvx::benchmarks
