#pragma once

#include <orvx/utility/Mutex.h>

#include <openssl/ssl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Loopback.h"

namespace orvx::testing {

/// A server that breaks the rules of TLS as a test requires: it serves one connection after another
/// on its own thread, with a certificate that it makes.
class TlsServer {
  public:
    /// Called on the server's thread when the handshake of a connection is complete. Then the
    /// connection is closed without close_notify.
    using Script = std::function<void(SSL&)>;
    struct Options {
        int version = TLS1_3_VERSION;          ///< The only version that it supports.
        std::string subject = "IP:127.0.0.1";  ///< In the notation of an alternative name.
        long validFrom = -3600;                ///< In seconds from now.
        long validUntil = 3600;
        bool isMutual = false;  ///< Requires the server's own certificate from clients.
        Loopback loopback = Loopback::V4;
        std::uint16_t port = 0;  ///< Zero for any free one.
        /// Raw bytes that follow the server's part of the TLS 1.3 handshake in the same segment. If
        /// there are any, the server then only waits for the end of the connection.
        std::string afterHandshake;
    };

    TlsServer(const Options& options, Script script);
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    std::uint16_t port() const { return port_; }
    /// The file of the certificate with its key. The certificate is its own authority.
    const std::string& authority() const { return authority_; }
    /// For each completed handshake, whether it resumed a session.
    std::vector<bool> resumed() const ORVX_EXCLUDES(mutex_);

    /// Reads a request without a body.
    static void readRequest(SSL& ssl);
    static void send(SSL& ssl, const std::string& bytes);

  private:
    struct ContextDeleter {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };

    void setUp(const Options& options);
    void serve();
    void serve(int connection);
    void handshakeAndSend(int connection, SSL& ssl) const;

    const Script script_;
    const std::string afterHandshake_;
    std::string authority_;
    std::unique_ptr<SSL_CTX, ContextDeleter> context_;
    const Socket listener_;
    const std::uint16_t port_;
    mutable utility::Mutex mutex_;
    std::vector<bool> resumed_ ORVX_GUARDED_BY(mutex_);
    std::thread thread_;
};

}  // namespace orvx::testing
