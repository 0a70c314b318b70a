// A plain socket for tests that control every byte.
// Runs on the thread that owns the connection.
// There is no lock.

#include "RawConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace orvx::registry {

namespace {

void check(bool good, const char* what) {
    if (!good) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

}  // namespace

RawConnection::RawConnection(std::uint16_t port, int receiveBuffer)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    check(socket_ >= 0, "socket");
    if (receiveBuffer > 0) {
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
          "connect");
}

RawConnection::RawConnection(RawConnection&& other) noexcept
    : TestConnection(std::move(other)), socket_(std::exchange(other.socket_, -1)) {}

RawConnection::~RawConnection() {
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

void RawConnection::send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        await(POLLOUT);
        const auto size =
            ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        check(size > 0, "send");
        sent += static_cast<std::size_t>(size);
    }
}

void RawConnection::endSending() {
    check(::shutdown(socket_, SHUT_WR) == 0, "shutdown");
}

void RawConnection::reset() {
    const linger atOnce{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    ::close(std::exchange(socket_, -1));
}

bool RawConnection::isClosedByPeer() {
    return unread_.empty() && !readMore();
}

void RawConnection::awaitReset() {
    await(0);
}

bool RawConnection::endsWithin(std::chrono::milliseconds longest) const {
    pollfd polled{socket_, POLLRDHUP, 0};
    return ::poll(&polled, 1, static_cast<int>(longest.count())) == 1;
}

void RawConnection::await(short events) {
    pollfd polled{socket_, events, 0};
    if (::poll(&polled, 1, 30'000) != 1) {
        throw std::runtime_error("nothing happened on a connection for thirty seconds");
    }
}

bool RawConnection::readMore() {
    await(POLLIN);
    std::array<char, 16'384> bytes;
    const auto size = ::recv(socket_, bytes.data(), bytes.size(), 0);
    check(size >= 0, "recv");
    unread_.append(bytes.data(), static_cast<std::size_t>(size));
    return size > 0;
}

RawListener::RawListener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    check(socket_ >= 0, "socket");
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    check(::bind(socket_, generic, size) == 0 && ::listen(socket_, SOMAXCONN) == 0 &&
              ::getsockname(socket_, generic, &size) == 0,
          "listen");
    port_ = ntohs(address.sin_port);
}

RawListener::~RawListener() {
    ::close(socket_);
}

RawConnection RawListener::accept() const {
    pollfd polled{socket_, POLLIN, 0};
    if (::poll(&polled, 1, 30'000) != 1) {
        throw std::runtime_error("nobody connected within thirty seconds");
    }
    const int accepted = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    check(accepted >= 0, "accept");
    return RawConnection(RawConnection::Accepted{accepted});
}

std::string makeRequest(const std::string& method, const std::string& target,
                        const std::string& body) {
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    if (!body.empty()) {
        request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return request + "\r\n" + body;
}

}  // namespace orvx::registry
