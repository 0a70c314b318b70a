// The loop of the benchmark server: one epoll instance, kept connections, and prepared answers to
// which only the location is added. One thread, no lock.

#include "Server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace orvx::benchmarks {

namespace {

constexpr std::string_view kOk = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
constexpr std::string_view kNotFound = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";

std::string_view pathOf(std::string_view request) {
    const std::size_t begin = request.find(' ') + 1;
    return request.substr(begin, request.find(' ', begin) - begin);
}

}  // namespace

Server::Listener::Listener() : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (::bind(socket, any, size) != 0 || ::listen(socket, 1024) != 0 ||
        ::getsockname(socket, any, &size) != 0) {
        throw std::runtime_error("cannot listen");
    }
    port = ntohs(address.sin_port);
}

Server::Listener::~Listener() {
    ::close(socket);
}

Server::Server(const char* certificateFile, const char* keyFile)
    : tls_(SSL_CTX_new(TLS_server_method())), epoll_(::epoll_create1(0)) {
    if (SSL_CTX_use_certificate_file(tls_.get(), certificateFile, SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls_.get(), keyFile, SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("no certificate");
    }
    watch(plain_.socket);
    watch(secure_.socket);
    watch(STDIN_FILENO);
}

Server::~Server() {
    ::close(epoll_);
}

void Server::run() {
    std::array<epoll_event, 64> events{};
    for (;;) {
        const int ready = ::epoll_wait(epoll_, events.data(), events.size(), -1);
        for (int i = 0; i < ready; ++i) {
            const int descriptor = events[static_cast<std::size_t>(i)].data.fd;
            if (descriptor == STDIN_FILENO) {
                return;
            }
            if (descriptor == plain_.socket || descriptor == secure_.socket) {
                accept(descriptor);
            } else {
                serve(descriptor);
            }
        }
    }
}

void Server::watch(int descriptor) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event);
}

void Server::accept(int listener) {
    const int socket = ::accept(listener, nullptr, nullptr);
    if (socket >= 0) {
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connections_.try_emplace(socket, socket, listener == secure_.socket ? tls_.get() : nullptr);
        watch(socket);
    }
}

void Server::serve(int socket) {
    Connection& connection = connections_.find(socket)->second;
    if (!connection.receive()) {
        connections_.erase(socket);
        return;
    }
    const std::string_view request = connection.request();
    if (!request.empty()) {
        answer(connection, request);
        connection.release();
    }
}

void Server::answer(const Connection& connection, std::string_view request) {
    switch (request.front()) {
        case 'P':
            answerPut(connection, pathOf(request));
            break;
        case 'H':
            answerHead(connection);
            break;
        case 'D':
            ++deletes_;
            connection.send(kOk);
            break;
        default:
            answerOrder(connection, pathOf(request));
    }
}

void Server::answerPut(const Connection& connection, std::string_view path) {
    ++puts_;
    answer_ = "HTTP/1.1 201 Created\r\nLocation: /e";
    answer_ += path.substr(path.rfind('/'));
    answer_ += "\r\nContent-Length: 0\r\n\r\n";
    connection.send(answer_);
}

void Server::answerHead(const Connection& connection) {
    connection.send(hasLost_ ? kNotFound : kOk);
    if (++heads_ == awaitedHeads_ && waiting_ != nullptr) {
        waiting_->send(kOk);
    }
}

void Server::answerOrder(const Connection& connection, std::string_view path) {
    constexpr std::string_view kHeads = "/heads/";
    if (path == "/counts") {
        answerText(connection, std::to_string(puts_) + ' ' + std::to_string(heads_) + ' ' +
                                   std::to_string(deletes_));
        return;
    }
    if (path.substr(0, kHeads.size()) == kHeads) {
        awaitedHeads_ = std::strtoull(path.data() + kHeads.size(), nullptr, 10);
        waiting_ = &connection;
        if (heads_ < awaitedHeads_) {
            return;
        }
    } else {
        hasLost_ = path == "/lose";
    }
    connection.send(kOk);
}

void Server::answerText(const Connection& connection, const std::string& text) const {
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(text.size()) +
                    "\r\n\r\n" + text);
}

}  // namespace orvx::benchmarks
