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

/// TLS towards the server. Off by default. The server's certificate and name are always verified,
/// unless disableServerVerification is set.
///
/// Paths name PEM files. They are read for each new connection: a file that is replaced on disk is
/// used by the next connection. The files must exist when the configuration is first used. Later,
/// new connections fail with TlsFailed while a file is missing or invalid.
struct TlsConfig {
    /// Versions of TLS.
    enum class Version { Tls12, Tls13 };

    /// Whether TLS is used. Default: false.
    bool enabled = false;
    /// A file with the certificates of the authorities to trust. If neither a file nor a folder is
    /// given, the system's authorities are trusted.
    std::string authorityFile;
    /// A folder with the certificates of the authorities to trust, named as by OpenSSL's
    /// `c_rehash`.
    std::string authorityFolder;
    /// The certificate that this client presents; empty: none. The file may also contain the key,
    /// which must not be encrypted.
    std::string clientCertificateFile;
    /// The private key of the certificate; empty: the key is in clientCertificateFile.
    std::string clientKeyFile;
    /// The lowest version that is accepted.
    Version lowestVersion = Version::Tls12;
    /// True accepts any server that speaks TLS. For experiments only. Default: false.
    bool disableServerVerification = false;
};

/// The configuration of HTTP: time-outs, limits, headers, credentials, proxy or Unix socket, TLS. A
/// value; copies share the objects that pointers refer to.
///
/// init() refuses a configuration that cannot work, with one sentence that names the option. A
/// time-out of more than 24 days counts as 24 days.
struct HttpConfig {
    /// Name and value.
    using Header = std::pair<std::string, std::string>;

    /// Time to connect, including TLS and the proxy's CONNECT. Positive.
    std::chrono::milliseconds connectTimeout{5000};
    /// Time from the submission of a request to the end of its answer, including the wait for a
    /// connection. Positive.
    std::chrono::milliseconds requestTimeout{30000};
    /// The maximum number of connections to one endpoint. Further requests wait for a connection.
    /// Positive.
    std::size_t connectionsPerEndpoint = 16;
    /// The maximum size of an answer's headers in bytes, including those of interim answers. A
    /// larger answer fails with TooLarge. Values above 300 KiB count as 300 KiB. Positive.
    std::size_t maxHeaderBytes = 128 * 1024;
    /// The maximum size of an answer's body in bytes. A larger answer fails with TooLarge.
    /// Positive.
    std::size_t maxBodyBytes = 1024 * 1024;
    /// Headers that are sent with every request.
    std::vector<Header> headers;
    /// The value of User-Agent; empty: the header is not sent. A User-Agent among the headers
    /// replaces it, but is not shown to a proxy that only tunnels TLS.
    std::string userAgent = "OrvxServiceRegistryClient";
    /// Sent with every request in its Authorization header; not sent to a proxy that only tunnels
    /// TLS. Shared: the credentials may be changed at any time. Null: none.
    std::shared_ptr<HttpCredentials> credentials;
    /// The HTTP proxy of every connection, as "http://host:port"; empty: none. Environment
    /// variables are ignored. TLS is tunnelled through the proxy (CONNECT). Plain requests are
    /// forwarded by the proxy, whose own answers count as the server's.
    std::string proxy;
    /// Sent to the proxy with each plain request, and once for each TLS tunnel, which stays open
    /// when the credentials change. Null: none.
    std::shared_ptr<HttpCredentials> proxyCredentials;
    /// The path of a Unix domain socket that is used to reach every server; empty: TCP. The
    /// endpoint's host and port then only name the server and its certificate. At most 107 bytes.
    /// Cannot be combined with a proxy.
    std::string unixSocketPath;
    /// The configuration of TLS.
    TlsConfig tls;
    /// Counts the requests that are made with this configuration. Keep the object and call its
    /// snapshot() at any time, from any thread. Several configurations may share it. Null: the
    /// context uses an object of its own.
    std::shared_ptr<ClientStatistics> statistics;
};

}  // namespace orvx::communication
