#pragma once

#include <string>

namespace orvx::registry {

/// The files of a server or client that speaks TLS, in PEM.
struct TlsFiles {
    std::string certificate{};  ///< chain without the root; empty: no certificate
    std::string key{};          ///< empty: in the file of the certificate
    /// The authorities that verify the peer. Empty: a server asks its clients for no certificate,
    /// and a client trusts the system's authorities.
    std::string authority{};
};

}  // namespace orvx::registry
