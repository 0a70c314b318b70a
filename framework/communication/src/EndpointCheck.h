#pragma once

#include <orvx/communication/HttpConfig.h>

#include <cstdint>
#include <string>

namespace orvx::communication {

/// Throws utility::OrvFoundationException, with a sentence that names what is wrong, when the
/// configuration makes no sense.
void checkConfig(const HttpConfig& config);

/// The URL of an endpoint. Throws utility::OrvFoundationException when host or port cannot be used.
std::string endpointUrl(const std::string& host, std::uint32_t port, const TlsConfig& tls);

}  // namespace orvx::communication
