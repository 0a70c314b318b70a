#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

#include "TlsFiles.h"

namespace orvx::registry {

/// Makes the TLS context of a server; null if no certificate is configured. Throws a FileError.
std::unique_ptr<boost::asio::ssl::context> makeTlsContext(const TlsFiles& files);

/// Makes the TLS context of a client, which verifies the servers: by the authority in the files, or
/// by the system's. Throws a FileError.
std::unique_ptr<boost::asio::ssl::context> makeClientTlsContext(const TlsFiles& files);

/// Before a client's handshake: demands a certificate for that name or address, and tells the
/// server the name.
void expectHost(SSL& ssl, const std::string& host);

/// Loads the certificate and the key of those files. Throws a FileError.
void loadOwn(boost::asio::ssl::context& context, const TlsFiles& files);

/// The subject of the certificate that the other side has shown, as "CN=lamp"; empty: none. What is
/// longer than 200 bytes is cut.
std::string subjectOfPeer(const SSL& ssl);

}  // namespace orvx::registry
