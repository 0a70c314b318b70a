#pragma once

#include <orvx/communication/HttpConfig.h>

#include <cstdint>
#include <string>

namespace orvx::communication {

/// Throws utility::OrvFoundationException, with a sentence that names the option, when the
/// configuration makes no sense. Looks at no file.
void checkConfig(const HttpConfig& config);

/// Throws utility::OrvFoundationException, with a sentence that names the option, when a file or
/// folder cannot be read, or is not what it should be.
void checkFiles(const TlsConfig& tls);

/// The URL of an endpoint. Throws utility::OrvFoundationException when host or port cannot be used.
std::string endpointUrl(const std::string& host, std::uint32_t port, const TlsConfig& tls);

}  // namespace orvx::communication
