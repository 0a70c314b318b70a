#pragma once

#include <string>

namespace orvx::registry {

/// The files of a registry that speaks TLS, in PEM.
struct TlsFiles {
    std::string certificate{};  ///< with those between it and the authority; empty: no TLS
    std::string key{};          ///< empty: it is in the file of the certificate
    std::string authority{};    ///< of the clients, which must show a certificate; empty: need not
};

}  // namespace orvx::registry
