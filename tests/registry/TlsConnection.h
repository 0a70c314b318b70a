#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "TestConnection.h"

namespace orvx::registry {

/// An authority, and certificates that it has signed, for 127.0.0.1, each beside its key as
/// NAME.pem and NAME.key.
class Certificates {
  public:
    /// `folder`: ends with a slash. Makes the authority, ca.pem.
    explicit Certificates(std::string folder);

    void make(const std::string& name) const;
    std::string file(const std::string& name) const { return folder_ + name; }

  private:
    const std::string folder_;
};

/// A connection over TLS to 127.0.0.1. All that waits throws a std::runtime_error after ten
/// seconds.
///
/// Thread-safety: none.
class TlsConnection final : public TestConnection {
  public:
    /// `own`: the name of the certificate that is shown; empty: none. Throws a std::runtime_error
    /// when the handshake fails.
    TlsConnection(std::uint16_t port, const Certificates& certificates,
                  const std::string& own = {});
    TlsConnection(TlsConnection&& other) noexcept = default;

    void send(const std::string& bytes) override;
    /// True when the other side ends the connection without another byte; false when it breaks it.
    bool isClosedByPeer();

  private:
    struct CloseSocket {
        void operator()(SSL* ssl) const;
    };

    bool readMore() override;

    std::unique_ptr<SSL, CloseSocket> ssl_;
};

}  // namespace orvx::registry
