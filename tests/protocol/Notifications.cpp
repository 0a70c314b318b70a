// Receives the notifications of a program to its service manager. Entered by the test's thread. No
// lock.
#include "Notifications.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace orvx::testing {

using namespace std::chrono_literals;

namespace {

struct Address {
    explicit Address(const std::string& name)
        : size(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())) {
        path.sun_family = AF_UNIX;
        std::memcpy(path.sun_path, name.data(), name.size());
        if (name[0] == '@') {
            path.sun_path[0] = '\0';
        }
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&path); }

    sockaddr_un path{};
    socklen_t size;
};

}  // namespace

Notifications::Notifications(const std::string& name)
    : name_(name), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const Address address(name);
    if (::bind(socket_.fd(), address.get(), address.size) != 0) {
        throw std::runtime_error("bind");
    }
}

void Notifications::fillQueue() const {
    const Address address(name_);
    const Socket sender(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    while (::sendto(sender.fd(), "", 0, MSG_DONTWAIT, address.get(), address.size) == 0) {
    }
    if (errno != EAGAIN) {
        throw std::runtime_error("sendto");
    }
}

std::optional<std::string> Notifications::within(std::chrono::milliseconds patience) const {
    pollfd polled{socket_.fd(), POLLIN, 0};
    if (::poll(&polled, 1, static_cast<int>(patience.count())) != 1) {
        return std::nullopt;
    }
    std::array<char, 4096> bytes{};
    const auto size = ::recv(socket_.fd(), bytes.data(), bytes.size(), 0);
    return std::string(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

std::string Notifications::next() const {
    const auto told = within(10s);
    if (!told) {
        throw std::runtime_error("nothing was told for ten seconds");
    }
    return *told;
}

void Notifications::await(const std::string& wanted) const {
    while (next() != wanted) {
    }
}

}  // namespace orvx::testing
