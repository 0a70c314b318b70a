// Forks a process that runs the yardsticks on demand and says what they cost.
// One thread on either side, no lock.

#include "Yardsticks.h"

#include "CurlLoop.h"
#include "EpollLoop.h"
#include "Measure.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <iostream>

namespace orvx::benchmarks {

Yardsticks::Yardsticks(std::uint16_t port, std::size_t connections, const Requests& requests) {
    std::array<int, 2> sockets{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "no pipe");
    process_ = ::fork();
    require(process_ >= 0, "no process");
    if (process_ == 0) {
        ::close(sockets[0]);
        serve(sockets[1], port, connections, requests);
    }
    ::close(sockets[1]);
    socket_ = sockets[0];
    curl(Method::Head);  // Opens the connections.
    floor(Method::Head);
}

Yardsticks::~Yardsticks() {
    ::close(socket_);
    ::waitpid(process_, nullptr, 0);
}

double Yardsticks::ask(Order order) const {
    double cost = 0;
    require(::send(socket_, &order, sizeof order, MSG_NOSIGNAL) == sizeof order &&
                ::recv(socket_, &cost, sizeof cost, MSG_WAITALL) == sizeof cost,
            "a yardstick has failed");
    return cost;
}

void Yardsticks::serve(int socket, std::uint16_t port, std::size_t connections,
                       const Requests& requests) {
    try {
        CurlLoop curl(port, connections);
        EpollLoop floor(port, connections);
        for (Order order{}; ::recv(socket, &order, sizeof order, MSG_WAITALL) > 0;) {
            const double cost = cpuPer(requests.size(), [&] {
                order.isForCurl ? curl.run(order.method, requests)
                                : floor.run(order.method, requests);
            });
            ::send(socket, &cost, sizeof cost, MSG_NOSIGNAL);
        }
        std::_Exit(0);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        std::_Exit(1);
    }
}

}  // namespace orvx::benchmarks
