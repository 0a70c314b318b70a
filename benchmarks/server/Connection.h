#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace orvx::benchmarks {

/// The bytes of one connection that no request has been made of yet. Requests come one at a time.
class Connection {
  public:
    explicit Connection(int socket) : socket_(socket) {}
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Takes in what is there; false when the peer has closed or sends too much.
    bool receive();
    /// The head of the request when all of it is here, else empty; valid until release().
    std::string_view request() const;
    void release() { filled_ = 0; }
    /// An answer is small: it fits the socket's buffer.
    void send(std::string_view answer) const;

  private:
    const int socket_;
    std::size_t filled_ = 0;
    std::array<char, 8192> bytes_{};
};

}  // namespace orvx::benchmarks
