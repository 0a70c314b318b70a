// Reads requests from a socket and writes answers, with one system call each. One thread, no lock.

#include "Connection.h"

#include <fcntl.h>
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

Connection::Connection(int socket, SSL_CTX* tls)
    : socket_(socket), ssl_(tls != nullptr ? SSL_new(tls) : nullptr) {
    if (ssl_) {
        ::fcntl(socket, F_SETFL, O_NONBLOCK);
        SSL_set_fd(ssl_.get(), socket);
        SSL_set_accept_state(ssl_.get());
    }
}

Connection::~Connection() {
    ::close(socket_);
}

bool Connection::receive() {
    if (ssl_) {
        return receiveDecrypted();
    }
    const auto got =
        ::recv(socket_, bytes_.data() + filled_, bytes_.size() - filled_, MSG_DONTWAIT);
    if (got < 0) {
        return errno == EAGAIN;
    }
    filled_ += static_cast<std::size_t>(got);
    return got > 0;
}

bool Connection::receiveDecrypted() {
    for (;;) {
        std::size_t got = 0;
        const int result =
            SSL_read_ex(ssl_.get(), bytes_.data() + filled_, bytes_.size() - filled_, &got);
        if (result != 1) {
            return SSL_get_error(ssl_.get(), result) == SSL_ERROR_WANT_READ;
        }
        filled_ += got;
    }
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
    if (ssl_) {
        std::size_t sent = 0;
        SSL_write_ex(ssl_.get(), answer.data(), answer.size(), &sent);
        return;
    }
    [[maybe_unused]] const auto sent =
        ::send(socket_, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace orvx::benchmarks
