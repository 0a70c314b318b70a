#pragma once

#include <orvx/communication/HttpConfig.h>

#include <boost/asio/ssl/context.hpp>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace orvx::communication {

/// TLS as one endpoint speaks it: what is made of its files, and the sessions that can be resumed.
///
/// The files are read for each connection. Only if nothing in them has changed is what was made of
/// them used again, and sessions that were verified with them are resumed.
///
/// For the I/O thread only.
class TlsClient {
  public:
    /// `host` is the name or the address that the certificate has to be for.
    TlsClient(const TlsConfig& config, const std::string& host);
    ~TlsClient();
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    /// For the next connection. Throws utility::OrvFoundationException when a file cannot be used.
    std::shared_ptr<boost::asio::ssl::context> context();
    /// Sets a connection up: whom to verify, whom to ask for, the session to resume.
    void prepare(SSL& ssl);
    /// The connection may outlive this object from here on. Sessions that it still gets are
    /// dropped.
    static void leave(SSL& ssl) noexcept;
    /// In words, what made a handshake fail.
    static std::string whatFailed(const SSL& ssl, const boost::system::error_code& error);

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
    std::vector<Session> sessions_;  // The newest is the last.
};

}  // namespace orvx::communication
