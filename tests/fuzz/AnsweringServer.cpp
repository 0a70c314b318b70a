// A loop over accept(): one connection at a time, closed before the next one. A failure on a
// connection is caused by the client and ends the connection. answerWith() is entered by any
// thread, the rest by the server's thread. `mutex_` is a leaf lock.

#include "AnsweringServer.h"

#include "Input.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace orvx::fuzz {

namespace {

int listenAnywhere() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                ::listen(listener, 16) == 0,
            "the server can listen");
    return listener;
}

std::uint16_t portOf(int listener) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// Returns false if the client has ended the connection. The body of a PUT is "{}".
bool readRequest(int connection) {
    std::string request;
    std::array<char, 4'096> bytes;
    while (!endsWith(request, request.rfind("PUT ", 0) == 0 ? "\r\n\r\n{}" : "\r\n\r\n")) {
        const auto size = ::recv(connection, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return false;
        }
        request.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return true;
}

bool waitsForMore(int connection, std::chrono::milliseconds longest) {
    pollfd polled{connection, POLLIN, 0};
    return ::poll(&polled, 1, static_cast<int>(longest.count())) == 1;
}

void send(int connection, const AnsweringServer::Answer& answer) {
    std::string_view rest = answer.bytes;
    const std::size_t piece = answer.piece == 0 ? rest.size() : answer.piece;
    while (!rest.empty()) {
        const auto size =
            ::send(connection, rest.data(), std::min(piece, rest.size()), MSG_NOSIGNAL);
        if (size <= 0) {
            return;
        }
        rest.remove_prefix(static_cast<std::size_t>(size));
    }
}

void serve(int connection, const AnsweringServer::Answer& answer) {
    using Ending = AnsweringServer::Ending;
    const int on = 1;
    ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!readRequest(connection)) {
        return;
    }
    send(connection, answer);
    if (answer.ending == Ending::Again && waitsForMore(connection, std::chrono::milliseconds(2)) &&
        readRequest(connection)) {
        send(connection, answer);
    } else if (answer.ending == Ending::Stall) {
        waitsForMore(connection, std::chrono::milliseconds(60));
    } else if (answer.ending == Ending::Reset) {
        const linger atOnce{1, 0};
        ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
}

}  // namespace

AnsweringServer::AnsweringServer()
    : listener_(listenAnywhere()), port_(portOf(listener_)), thread_([this] { run(); }) {}

AnsweringServer::~AnsweringServer() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
}

void AnsweringServer::answerWith(Answer answer) {
    utility::MutexLock lock(mutex_);
    while (connection_ >= 0) {
        ::shutdown(connection_, SHUT_RDWR);
        ended_.wait(lock.native());
    }
    answer_ = std::move(answer);
}

AnsweringServer::Answer AnsweringServer::begin(int connection) {
    const utility::MutexLock lock(mutex_);
    connection_ = connection;
    return answer_;
}

void AnsweringServer::end() {
    const utility::MutexLock lock(mutex_);
    ::close(connection_);
    connection_ = -1;
    ended_.notify_all();
}

void AnsweringServer::run() {
    for (;;) {
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            return;
        }
        serve(connection, begin(connection));
        end();
    }
}

}  // namespace orvx::fuzz
