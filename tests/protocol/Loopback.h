#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

namespace orvx::testing {

/// A loopback address: 127.0.0.1, 127.0.0.2, 127.0.0.3, or ::1.
enum class Loopback { V4, SecondV4, ThirdV4, V6 };

/// The address as the host of a URL.
std::string hostOf(Loopback loopback);

/// Owns a file descriptor. Not thread-safe.
class Socket {
  public:
    Socket() = default;
    explicit Socket(int fd) : fd_(fd) {}
    Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Socket();

    /// -1 without a descriptor.
    int fd() const { return fd_; }

  private:
    int fd_ = -1;
};

/// A non-blocking TCP socket bound to `port`, which does not listen; zero means any free port.
/// Several sockets may share a port as long as none of them listens. Throws std::system_error.
Socket bindLoopback(Loopback loopback = Loopback::V4, std::uint16_t port = 0);

/// Makes a bound socket listen. Throws std::system_error.
void listenOn(const Socket& socket, int backlog);

/// A non-blocking TCP socket with a started connect to `port`. A refusal shows later as the
/// socket's SO_ERROR. Throws std::system_error.
Socket connectLoopback(std::uint16_t port, Loopback loopback = Loopback::V4);

/// The port to which a socket is bound.
std::uint16_t portOf(const Socket& socket);

/// Waits until the socket has one of poll()'s `events` or has failed. Returns false after the
/// time-out.
bool waitForEvents(const Socket& socket, short events, int timeoutMilliseconds);

/// Whether this machine has the address ::1.
bool hasIpv6Loopback();

/// Servers at the same port of several addresses. A port that the kernel assigns at one address may
/// be in use at another one: then all servers are made again. Throws std::system_error.
template <typename Servers>
std::unique_ptr<Servers> atAFreePort() {
    for (int tries = 1;; ++tries) {
        try {
            return std::make_unique<Servers>();
        } catch (const std::system_error& error) {
            if (error.code() != std::errc::address_in_use || tries == 20) {
                throw;
            }
        }
    }
}

/// A port at which every connect is refused, and that no other process gets while the object lives.
class RefusedPort {
  public:
    /// Throws std::system_error.
    RefusedPort() : socket_(bindLoopback()), port_(portOf(socket_)) {}

    std::uint16_t port() const { return port_; }

  private:
    Socket socket_;
    std::uint16_t port_;
};

/// A port that neither accepts nor refuses a connect, so that no answer comes. The socket listens
/// with a full queue, and the kernel drops each further SYN.
class BlackHole {
  public:
    /// Throws std::system_error, and std::runtime_error if the queue does not fill.
    explicit BlackHole(Loopback loopback = Loopback::V4, std::uint16_t port = 0);

    std::uint16_t port() const { return port_; }

  private:
    Socket listener_;
    std::uint16_t port_;
    Socket filler_;
};

}  // namespace orvx::testing
