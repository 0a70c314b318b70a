#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace orvx::communication {

/// TLS towards the server. Off by default. A server is always verified, its certificate and its
/// name, unless that is switched off by name. Paths are those of PEM files.
struct TlsConfig {
    enum class Version { Tls12, Tls13 };

    bool enabled = false;
    /// The authorities to trust: a file, a folder (hashed names), or, with both empty, the
    /// system's.
    std::string authorityFile;
    std::string authorityFolder;
    /// What this client shows of itself; both empty: nothing.
    std::string clientCertificateFile;
    std::string clientKeyFile;
    /// The lowest version that is accepted.
    Version lowestVersion = Version::Tls12;
    /// True accepts any server that speaks TLS. For experiments.
    bool disableServerVerification = false;
};

/// How HTTP is spoken: time-outs, bounds, headers, TLS. A value.
///
/// A value that makes no sense is refused where the configuration is used first, with a message
/// that names it: time-outs and bounds must be positive, texts must not hold control characters.
/// Time-outs beyond 24 days count as 24 days.
struct HttpConfig {
    using Header = std::pair<std::string, std::string>;

    /// From taking a connection until it stands, TLS included.
    std::chrono::milliseconds connectTimeout{5000};
    /// From submitting a request until its whole answer is there, waiting for a connection
    /// included.
    std::chrono::milliseconds requestTimeout{30000};
    /// Connections to one endpoint; requests beyond wait.
    std::size_t connectionsPerEndpoint = 16;
    /// Bounds of an answer, in bytes: all its header lines together (interim answers included), and
    /// its body. One beyond fails with TooLarge. Beyond 100 KiB
    /// for a single header line, and 300 KiB for all of them, no setting counts.
    std::size_t maxHeaderBytes = 128 * 1024;
    std::size_t maxBodyBytes = 1024 * 1024;
    /// Sent with every request.
    std::vector<Header> headers;
    std::string userAgent = "OrvxServiceRegistryClient";
    TlsConfig tls;
};

}  // namespace orvx::communication
