// Receives the notifications of a program to its service manager. Entered by the test's thread. No
// lock.
#include "Notifications.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace orvx::testing {

using namespace std::chrono_literals;

Notifications::Notifications(const std::string& name)
    : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (::bind(socket_.fd(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        throw std::runtime_error("bind");
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
