#pragma once

#include "Request.h"

#include <orvx/communication/ConfigCheck.h>

#include <cstdint>
#include <string>

namespace orvx::communication {

/// Throws utility::OrvFoundationException, with a sentence that names the option, if a file or
/// folder cannot be read or has the wrong content.
void checkFiles(const TlsConfig& tls);

/// The origin of an endpoint. Throws utility::OrvFoundationException if host or port cannot be
/// used.
Origin originOf(const std::string& host, std::uint32_t port);

/// The proxy of a valid configuration; without a host if there is none.
Origin proxyOf(const HttpConfig& config);

}  // namespace orvx::communication
