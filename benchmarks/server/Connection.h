#pragma once

#include <openssl/ssl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace orvx::benchmarks {

/// The received bytes of one connection that are not a complete request yet. Requests come one at a
/// time.
class Connection {
  public:
    /// `tls` is null without TLS.
    Connection(int socket, SSL_CTX* tls);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Reads the available bytes. Returns false if the peer has closed the connection or sends too
    /// much.
    bool receive();
    /// The head of the request if it is complete, otherwise empty. Valid until release().
    std::string_view request() const;
    void release() { filled_ = 0; }
    /// The answer must fit the socket's buffer.
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
