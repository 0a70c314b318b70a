// Sockets on the loopback, and ports that fail before a connection exists.
//
// Threads: no shared state; an object belongs to the thread that uses it. No locks.

#include "Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace orvx::testing {
namespace {

constexpr int kPatienceMilliseconds = 10000;

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

Address addressOf(Loopback loopback, std::uint16_t port) {
    Address address{};
    if (loopback == Loopback::V6) {
        address.v6 = {AF_INET6, htons(port), 0, in6addr_loopback, 0};
    } else {
        const auto number = static_cast<in_addr_t>(loopback) - static_cast<in_addr_t>(Loopback::V4);
        address.v4 = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK + number)}, {}};
    }
    return address;
}

void check(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

Socket openSocket(Loopback loopback) {
    const int family = loopback == Loopback::V6 ? AF_INET6 : AF_INET;
    const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    check(fd, "socket");
    return Socket(fd);
}

}  // namespace

Socket::~Socket() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

std::string hostOf(Loopback loopback) {
    const auto number = static_cast<int>(loopback) - static_cast<int>(Loopback::V4) + 1;
    return loopback == Loopback::V6 ? "[::1]" : "127.0.0." + std::to_string(number);
}

Socket bindLoopback(Loopback loopback, std::uint16_t port) {
    Socket socket = openSocket(loopback);
    const int on = 1;
    check(::setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "SO_REUSEADDR");
    const Address address = addressOf(loopback, port);
    check(::bind(socket.fd(), &address.any, sizeof address), "bind");
    return socket;
}

void listenOn(const Socket& socket, int backlog) {
    check(::listen(socket.fd(), backlog), "listen");
}

Socket connectLoopback(std::uint16_t port, Loopback loopback) {
    Socket socket = openSocket(loopback);
    const Address address = addressOf(loopback, port);
    if (::connect(socket.fd(), &address.any, sizeof address) < 0 && errno != EINPROGRESS) {
        check(-1, "connect");
    }
    return socket;
}

std::uint16_t portOf(const Socket& socket) {
    Address address{};
    socklen_t size = sizeof address;
    check(::getsockname(socket.fd(), &address.any, &size), "getsockname");
    // Both address families store the port at the same offset.
    return ntohs(address.v4.sin_port);
}

bool waitForEvents(const Socket& socket, short events, int timeoutMilliseconds) {
    pollfd polled{socket.fd(), events, 0};
    return ::poll(&polled, 1, timeoutMilliseconds) == 1;
}

bool hasIpv6Loopback() {
    try {
        bindLoopback(Loopback::V6);
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

// With a backlog of zero the kernel queues one connection. The connection is queued when the last
// ACK of its handshake has arrived, not when connect() returns: then the listener is readable.
BlackHole::BlackHole(Loopback loopback, std::uint16_t port)
    : listener_(bindLoopback(loopback, port)), port_(portOf(listener_)) {
    listenOn(listener_, 0);
    filler_ = connectLoopback(port_, loopback);
    if (!waitForEvents(listener_, POLLIN, kPatienceMilliseconds)) {
        throw std::runtime_error("the queue of the black hole does not fill");
    }
}

}  // namespace orvx::testing
