// One attempt to reach a service, in straight, blocking code.
// Runs in a child process with one thread; there is no lock.

#include "Probe.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <regex>

namespace orvx::announce {

namespace {

constexpr unsigned kLongestAttempt = 5;  // seconds

std::string withoutBrackets(const std::string& host) {
    return host.front() == '[' ? host.substr(1, host.size() - 2) : host;
}

std::string inBrackets(const std::string& host) {
    const bool isBare = host.front() != '[' && host.find(':') != std::string::npos;
    return isBare ? "[" + host + "]" : host;
}

/// A port that nobody listens at may be picked for the connection to it, which then meets itself.
bool isToItself(int connection) {
    sockaddr_storage here{};
    sockaddr_storage there{};
    socklen_t size = sizeof here;
    ::getsockname(connection, reinterpret_cast<sockaddr*>(&here), &size);
    size = sizeof there;
    ::getpeername(connection, reinterpret_cast<sockaddr*>(&there), &size);
    return std::memcmp(&here, &there, sizeof here) == 0;
}

/// A connected socket, or -1.
int connectTo(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(withoutBrackets(host).c_str(), port.c_str(), &hints, &list) != 0) {
        return -1;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, ::freeaddrinfo);
    for (; list != nullptr; list = list->ai_next) {
        const int connection = ::socket(list->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connection >= 0 && ::connect(connection, list->ai_addr, list->ai_addrlen) == 0 &&
            !isToItself(connection)) {
            return connection;
        }
        ::close(connection);
    }
    return -1;
}

bool answersWell(int connection, const std::string& host, const std::string& path) {
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host +
                                "\r\nConnection: close\r\nUser-Agent: orvx-announce\r\n\r\n";
    if (::send(connection, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        return false;
    }
    std::string line;
    std::array<char, 64> bytes{};
    while (line.size() < 12) {
        const auto size = ::recv(connection, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return false;
        }
        line.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return std::regex_search(line, std::regex("^HTTP/1\\.[01] [23][0-9][0-9]"));
}

bool answer(const std::string& host, const std::string& port, const std::string& path) {
    const int connection = connectTo(host, port);
    if (connection < 0) {
        return false;
    }
    const bool isReady =
        path.empty() || answersWell(connection, inBrackets(host) + ":" + port, path);
    ::close(connection);
    return isReady;
}

}  // namespace

bool answer(const std::vector<std::pair<std::string, std::string>>& addresses,
            const std::string& path) {
    ::alarm(kLongestAttempt);
    for (const auto& [host, port] : addresses) {
        if (!answer(host, port, path)) {
            return false;
        }
    }
    return true;
}

}  // namespace orvx::announce
