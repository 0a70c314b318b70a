// Reads requests from a socket and writes answers, at one system call each.
// One thread, no lock.

#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace orvx::benchmarks {

namespace {

std::size_t bodyLength(std::string_view head) {
    constexpr std::string_view kName = "\r\nContent-Length: ";
    const std::size_t at = head.find(kName);
    return at == std::string_view::npos
               ? 0
               : std::strtoul(head.data() + at + kName.size(), nullptr, 10);
}

}  // namespace

Connection::~Connection() {
    ::close(socket_);
}

bool Connection::receive() {
    const auto got =
        ::recv(socket_, bytes_.data() + filled_, bytes_.size() - filled_, MSG_DONTWAIT);
    if (got < 0) {
        return errno == EAGAIN;
    }
    filled_ += static_cast<std::size_t>(got);
    return got > 0;
}

std::string_view Connection::request() const {
    constexpr std::string_view kEnd = "\r\n\r\n";
    const std::string_view all(bytes_.data(), filled_);
    const std::size_t end = all.find(kEnd);
    if (end == std::string_view::npos) {
        return {};
    }
    const std::string_view head = all.substr(0, end + kEnd.size());
    const bool hasBody = head.front() == 'P';
    return hasBody && filled_ < head.size() + bodyLength(head) ? std::string_view() : head;
}

void Connection::send(std::string_view answer) const {
    [[maybe_unused]] const auto sent =
        ::send(socket_, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace orvx::benchmarks
