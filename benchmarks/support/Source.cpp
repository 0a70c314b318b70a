// One thread, no lock.

#include "Source.h"

#include "Measure.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace orvx::benchmarks {

int connectTo(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "the server cannot be reached");
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

Source::Source() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {}

Source::~Source() {
    ::close(epoll_);
}

void Source::follow(int socket, std::size_t index) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    require(::epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) == 0, "a socket is not followed");
}

void receiveUntil(Time time, const std::initializer_list<Source*>& sources) {
    ::prctl(PR_SET_TIMERSLACK, 1);  // nanoseconds
    std::vector<pollfd> polled;
    for (const Source* source : sources) {
        polled.push_back({source->epoll(), POLLIN, 0});
    }
    do {
        const auto left = std::max(std::chrono::nanoseconds(time - Time::clock::now()),
                                   std::chrono::nanoseconds(0));
        const timespec wait{left.count() / 1'000'000'000, left.count() % 1'000'000'000};
        ::ppoll(polled.data(), polled.size(), &wait, nullptr);
        auto next = polled.begin();
        for (Source* source : sources) {
            if (((next++)->revents & POLLIN) != 0) {
                source->receive();
            }
        }
    } while (Time::clock::now() < time);
}

}  // namespace orvx::benchmarks
