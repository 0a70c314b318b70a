#pragma once

#include <orvx/communication/HttpConfig.h>

#include <boost/asio/ssl/context.hpp>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace orvx::communication {

/// TLS for one endpoint: the OpenSSL context that is made from the configured files, and the
/// sessions that can be resumed.
///
/// The files are read for each connection. The context and its sessions are used again only if no
/// file has changed.
///
/// For the I/O thread only.
class TlsClient {
  public:
    /// `host` is the name or address that the certificate must contain.
    TlsClient(const TlsConfig& config, const std::string& host);
    ~TlsClient();
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    /// The context for the next connection. Throws utility::OrvFoundationException if a file cannot
    /// be used.
    std::shared_ptr<boost::asio::ssl::context> context();
    /// Makes the next connection use a new context. OpenSSL may make a context with fewer
    /// algorithms if memory runs out.
    void forgetContext() noexcept;
    /// Configures a connection: the name to verify, the server name to send, the session to resume.
    void prepare(SSL& ssl);
    /// Allows the connection to outlive this object. Sessions that it receives later are dropped.
    static void detach(SSL& ssl) noexcept;
    /// The cause of a failed handshake for human readers.
    static std::string handshakeError(const SSL& ssl, const boost::system::error_code& error);

  private:
    struct SessionDeleter {
        void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
    };
    using Session = std::unique_ptr<SSL_SESSION, SessionDeleter>;
    using Digest = std::array<unsigned char, 32>;
    struct Files {
        std::string authorities;
        std::string certificate;
        std::string key;
    };

    Files readFiles() const;
    static Digest digestOf(const Files& files);
    std::shared_ptr<boost::asio::ssl::context> makeContext(const Files& files);
    void loadAuthorities(boost::asio::ssl::context& context, const Files& files) const;
    static int onNewSession(SSL* ssl, SSL_SESSION* session) noexcept;

    const TlsConfig config_;
    const std::string host_;
    const bool isAddress_;
    const bool mayKeepContext_;
    std::shared_ptr<boost::asio::ssl::context> context_;
    Digest digest_{};
    std::vector<Session> sessions_;  // The newest session is the last one.
};

}  // namespace orvx::communication
