#pragma once

#include <string>

namespace orvx::registry {

/// The files of a server or client that speaks TLS, in PEM.
struct TlsFiles {
    std::string certificate{};  ///< with those between it and the authority; empty: none
    std::string key{};          ///< empty: it is in the file of the certificate
    /// Of the other side. Empty: a server asks its clients for no certificate, a client trusts the
    /// authorities of the system.
    std::string authority{};
};

}  // namespace orvx::registry
