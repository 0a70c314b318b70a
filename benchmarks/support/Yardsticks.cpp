// Forks a process that runs the yardsticks on demand and reports their cost. This process has one
// thread; the other one has more only during a run of ThreadsPeer. No lock.

#include "Yardsticks.h"

#include "CurlLoop.h"
#include "EpollLoop.h"
#include "Measure.h"
#include "Peers.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>

namespace orvx::benchmarks {

namespace {

/// Each is made when it is first used, because an unused one must not open connections.
class AllYardsticks {
  public:
    AllYardsticks(const Address& server, std::size_t connections, const Requests& requests)
        : server_(server), connections_(connections), requests_(requests) {}

    void run(Yardsticks::Kind kind, Method method) {
        switch (kind) {
            case Yardsticks::Kind::CurlLoop:
                return run(curl_, method, server_, connections_);
            case Yardsticks::Kind::Kernel:
                return run(kernel_, method, server_.port, connections_);
            case Yardsticks::Kind::Httplib:
                return run(httplib_, method, server_);
            case Yardsticks::Kind::Easy:
                return run(easy_, method, server_);
            case Yardsticks::Kind::Threads:
                return run(threads_, method, server_, connections_);
        }
    }

  private:
    template <typename Yardstick, typename... Arguments>
    void run(std::optional<Yardstick>& yardstick, Method method, const Arguments&... arguments) {
        if (!yardstick) {
            yardstick.emplace(arguments...);
        }
        yardstick->run(method, requests_);
    }

    const Address server_;
    const std::size_t connections_;
    const Requests& requests_;
    std::optional<CurlLoop> curl_;
    std::optional<EpollLoop> kernel_;
    std::optional<HttplibPeer> httplib_;
    std::optional<EasyPeer> easy_;
    std::optional<ThreadsPeer> threads_;
};

}  // namespace

Yardsticks::Yardsticks(const Address& server, std::size_t connections, const Requests& requests) {
    std::array<int, 2> sockets{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "no pipe");
    process_ = ::fork();
    require(process_ >= 0, "no process");
    if (process_ == 0) {
        ::close(sockets[0]);
        serve(sockets[1], server, connections, requests);
    }
    ::close(sockets[1]);
    socket_ = sockets[0];
    curl(Method::Head);  // Opens the connections.
}

Yardsticks::~Yardsticks() {
    ::close(socket_);
    ::waitpid(process_, nullptr, 0);
}

double Yardsticks::cost(Kind kind, Method method) const {
    const Order order{kind, method};
    double cost = 0;
    require(::send(socket_, &order, sizeof order, MSG_NOSIGNAL) == sizeof order &&
                ::recv(socket_, &cost, sizeof cost, MSG_WAITALL) == sizeof cost,
            "a yardstick has failed");
    return cost;
}

void Yardsticks::serve(int socket, const Address& server, std::size_t connections,
                       const Requests& requests) {
    try {
        AllYardsticks yardsticks(server, connections, requests);
        for (Order order{}; ::recv(socket, &order, sizeof order, MSG_WAITALL) > 0;) {
            const double cost =
                cpuPer(requests.size(), [&] { yardsticks.run(order.kind, order.method); });
            ::send(socket, &cost, sizeof cost, MSG_NOSIGNAL);
        }
        std::_Exit(0);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        std::_Exit(1);
    }
}

}  // namespace orvx::benchmarks
