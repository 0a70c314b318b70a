#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

#include "TlsFiles.h"

namespace orvx::registry {

/// Makes the TLS context of a server; null if no certificate is configured. Throws a FileError.
std::unique_ptr<boost::asio::ssl::context> makeTlsContext(const TlsFiles& files);

/// Makes the TLS context of a client, which verifies servers by the authority in `files`, or else
/// by the system's authorities. Throws a FileError.
std::unique_ptr<boost::asio::ssl::context> makeClientTlsContext(const TlsFiles& files);

/// To be called before a client's handshake. Requires a certificate for that name or address, and
/// sends a name to the server (SNI). A zone, and the trailing dot of an absolute name, are ignored:
/// neither a certificate nor SNI contains them.
void expectHost(SSL& ssl, const std::string& host);

/// Loads the certificate and the key of those files. Throws a FileError.
void loadOwn(boost::asio::ssl::context& context, const TlsFiles& files);

/// The subject of the peer's certificate, as "CN=lamp", cut after 200 bytes. Empty if there is
/// none.
std::string subjectOfPeer(const SSL& ssl);

}  // namespace orvx::registry
