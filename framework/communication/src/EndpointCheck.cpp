// Says no to configurations and endpoints that cannot work, before anything is sent.
// Pure functions, entered by any thread; there is no lock.

#include "EndpointCheck.h"

#include "RequestTarget.h"

#include <curl/curl.h>
#include <orvx/utility/OrvFoundationException.h>

#include <algorithm>
#include <array>

namespace orvx::communication {

namespace {

void require(bool isFine, const std::string& otherwise) {
    if (!isFine) {
        throw utility::OrvFoundationException(otherwise.c_str(), 0);
    }
}

void requirePositive(bool isPositive, const char* option) {
    require(isPositive, std::string("HttpConfig::") + option + " must be greater than zero.");
}

void requireText(const std::string& text, const std::string& option) {
    require(!hasControlCharacter(text), option + " must not contain control characters.");
}

bool isToken(const std::string& text) {
    constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [kMarks](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               kMarks.find(c) != std::string_view::npos;
    });
}

/// The headers that every request's own data decides.
bool isReserved(const std::string& name) {
    constexpr std::array<const char*, 7> kNames = {
        "Accept", "Connection", "Content-Length",   "Content-Type",
        "Expect", "Host",       "Transfer-Encoding"};
    return std::any_of(kNames.begin(), kNames.end(), [&name](const char* reserved) {
        return curl_strequal(name.c_str(), reserved) != 0;
    });
}

void checkHeader(const HttpConfig::Header& header) {
    const auto& [name, value] = header;
    require(isToken(name), "HttpConfig::headers contains a name that no header can have.");
    require(!isReserved(name),
            "HttpConfig::headers must not contain " + name + ", which the library sets itself.");
    requireText(value, "HttpConfig::headers: the value of " + name);
}

void checkTls(const TlsConfig& tls) {
    requireText(tls.authorityFile, "TlsConfig::authorityFile");
    requireText(tls.authorityFolder, "TlsConfig::authorityFolder");
    requireText(tls.clientCertificateFile, "TlsConfig::clientCertificateFile");
    requireText(tls.clientKeyFile, "TlsConfig::clientKeyFile");
    require(tls.clientKeyFile.empty() || !tls.clientCertificateFile.empty(),
            "TlsConfig::clientKeyFile needs a clientCertificateFile.");
}

}  // namespace

void checkConfig(const HttpConfig& config) {
    requirePositive(config.connectTimeout.count() > 0, "connectTimeout");
    requirePositive(config.requestTimeout.count() > 0, "requestTimeout");
    requirePositive(config.connectionsPerEndpoint > 0, "connectionsPerEndpoint");
    requirePositive(config.maxHeaderBytes > 0, "maxHeaderBytes");
    requirePositive(config.maxBodyBytes > 0, "maxBodyBytes");
    requireText(config.userAgent, "HttpConfig::userAgent");
    std::for_each(config.headers.begin(), config.headers.end(), checkHeader);
    checkTls(config.tls);
}

std::string endpointUrl(const std::string& host, std::uint32_t port, const TlsConfig& tls) {
    require(
        port >= 1 && port <= 65535,
        "The port of an endpoint must be between 1 and 65535, not " + std::to_string(port) + ".");
    const std::string hostAndPort = authority(host, port);
    require(!hostAndPort.empty(),
            "The host of an endpoint must be a name, an IPv4 address or an IPv6 address.");
    return (tls.enabled ? "https://" : "http://") + hostAndPort + '/';
}

}  // namespace orvx::communication
