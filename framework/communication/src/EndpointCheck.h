#pragma once

#include "Request.h"

#include <cstdint>
#include <string>

namespace orvx::communication {

/// Throws utility::OrvFoundationException, with a sentence that names the option, when the
/// configuration makes no sense. Looks at no file.
void checkConfig(const HttpConfig& config);

/// Throws utility::OrvFoundationException, with a sentence that names the option, when a file or
/// folder cannot be read, or is not what it should be.
void checkFiles(const TlsConfig& tls);

/// Where an endpoint is. Throws utility::OrvFoundationException when host or port cannot be used.
Origin originOf(const std::string& host, std::uint32_t port);

/// Where the proxy of a configuration that makes sense is; without a host if there is none.
Origin proxyOf(const HttpConfig& config);

}  // namespace orvx::communication
