#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "TestConnection.h"

namespace orvx::registry {

/// An authority and certificates for 127.0.0.1 that it has signed, in the files NAME.pem and
/// NAME.key.
class Certificates {
  public:
    /// Makes the authority, ca.pem, in `folder`, which ends with a slash.
    explicit Certificates(std::string folder);

    void make(const std::string& name) const;
    std::string file(const std::string& name) const { return folder_ + name; }

  private:
    const std::string folder_;
};

/// A connection over TLS to 127.0.0.1. A function that waits throws a std::runtime_error after ten
/// seconds.
///
/// Thread-safety: none.
class TlsConnection final : public TestConnection {
  public:
    /// `own`: the name of the client's certificate; empty: none. Throws a std::runtime_error if the
    /// handshake fails.
    TlsConnection(std::uint16_t port, const Certificates& certificates,
                  const std::string& own = {});
    TlsConnection(TlsConnection&& other) noexcept = default;

    void send(const std::string& bytes) override;
    /// Waits for the end of the connection. Returns whether the peer ended it regularly and without
    /// a further byte.
    bool isClosedByPeer();

  private:
    struct CloseSocket {
        void operator()(SSL* ssl) const;
    };

    bool readMore() override;

    std::unique_ptr<SSL, CloseSocket> ssl_;
};

}  // namespace orvx::registry
