#pragma once

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HttpCredentials.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orvx::communication {

/// TLS towards the server. Off by default. A server is always verified, its certificate and its
/// name, unless that is switched off by name.
///
/// Paths are those of PEM files, which are read for each new connection: what is replaced on disk
/// is used by the next one. They must be there when the configuration is first used; one that is
/// missing or broken later fails the connections that are made meanwhile, with TlsFailed.
struct TlsConfig {
    /// The versions of TLS that may be asked for.
    enum class Version { Tls12, Tls13 };

    /// Whether TLS is spoken at all. Default: false.
    bool enabled = false;
    /// The authorities to trust: a file, a folder (hashed names), or, with both empty, the
    /// system's.
    std::string authorityFile;
    /// A folder of authorities, as OpenSSL's `c_rehash` names them.
    std::string authorityFolder;
    /// What this client shows of itself; both empty: nothing. The key may be in the certificate's
    /// file; it must not be encrypted.
    std::string clientCertificateFile;
    /// The private key that belongs to the certificate.
    std::string clientKeyFile;
    /// The lowest version that is accepted.
    Version lowestVersion = Version::Tls12;
    /// True accepts any server that speaks TLS. For experiments.
    bool disableServerVerification = false;
};

/// How HTTP is spoken: time-outs, bounds, headers, credentials, the way to the server, TLS. A
/// value, but for the objects that it shares.
///
/// A configuration that makes no sense is refused by init() with one sentence that names the
/// option. Time-outs beyond 24 days count as 24 days.
struct HttpConfig {
    /// Name and value.
    using Header = std::pair<std::string, std::string>;

    /// From taking a connection until it stands, TLS and a proxy's consent included. Positive.
    std::chrono::milliseconds connectTimeout{5000};
    /// From submitting a request until its whole answer is there, waiting for a connection
    /// included. Positive.
    std::chrono::milliseconds requestTimeout{30000};
    /// Connections to one endpoint; requests beyond wait. Positive.
    std::size_t connectionsPerEndpoint = 16;
    /// Bounds of an answer, in bytes: all its header lines together (interim answers included), and
    /// its body. One beyond fails with TooLarge. Beyond 300 KiB of headers no setting counts.
    /// Positive.
    std::size_t maxHeaderBytes = 128 * 1024;
    /// The bound of an answer's body, in bytes. Positive.
    std::size_t maxBodyBytes = 1024 * 1024;
    /// Sent with every request.
    std::vector<Header> headers;
    /// Sent as User-Agent; empty: no such header.
    std::string userAgent = "OrvxServiceRegistryClient";
    /// Shown with every request, in its Authorization header; not to a proxy that TLS passes
    /// through. Shared: set another value there whenever you like. Null: none.
    std::shared_ptr<HttpCredentials> credentials;
    /// The HTTP proxy that every connection goes through, as "http://host:port"; empty: none,
    /// whatever the environment says. TLS passes through it (CONNECT); plain requests are read by
    /// it, and its own answers are taken for the server's.
    std::string proxy;
    /// Shown to the proxy: with each plain request, and once for each connection that TLS passes
    /// through, which then stands whatever is set later. Null: none.
    std::shared_ptr<HttpCredentials> proxyCredentials;
    /// The Unix domain socket where every server is reached; empty: over TCP. The endpoint's host
    /// and port are what the server and its certificate are called then. At most 107 bytes; not
    /// together with a proxy.
    std::string unixSocketPath;
    /// Whether and how connections are secured.
    TlsConfig tls;
    /// Where the requests that are made with this configuration are counted, in place of a counter
    /// that nobody sees. Keep the object, and take a snapshot() of it at any time, from any thread;
    /// several configurations may share it. Null: the context counts for itself.
    std::shared_ptr<ClientStatistics> statistics;
};

}  // namespace orvx::communication
