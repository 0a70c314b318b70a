#pragma once

#include <openssl/ssl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace orvx::benchmarks {

/// The bytes of one connection that no request has been made of yet. Requests come one at a time.
class Connection {
  public:
    /// `tls` is null without TLS.
    Connection(int socket, SSL_CTX* tls);
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
    struct SslDeleter {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };

    bool receiveDecrypted();

    const int socket_;
    const std::unique_ptr<SSL, SslDeleter> ssl_;
    std::size_t filled_ = 0;
    std::array<char, 8192> bytes_{};
};

}  // namespace orvx::benchmarks
