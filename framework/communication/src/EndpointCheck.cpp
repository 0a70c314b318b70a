// Refuses invalid configurations and endpoints before anything is sent.
// Entered by any thread; there is no state and no lock.

#include "EndpointCheck.h"

#include "Require.h"

#include <orvx/utility/Ascii.h>

#include <sys/un.h>

#include <algorithm>
#include <array>

namespace orvx::communication {

using utility::equalsIgnoringCase;

namespace {

void requirePositive(bool isPositive, const char* option) {
    require(isPositive, std::string("HttpConfig::") + option + " must be greater than zero.");
}

bool isToken(const std::string& text) {
    constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [kMarks](char c) {
        return utility::isAlphanumeric(c) || kMarks.find(c) != std::string_view::npos;
    });
}

/// Headers that the library sets for each request.
bool isReserved(const std::string& name) {
    constexpr std::array<const char*, 7> kNames = {
        "Accept", "Connection", "Content-Length",   "Content-Type",
        "Expect", "Host",       "Transfer-Encoding"};
    return std::any_of(kNames.begin(), kNames.end(), [&name](const char* reserved) {
        return equalsIgnoringCase(name, reserved);
    });
}

void checkHeader(const HttpConfig::Header& header) {
    const auto& [name, value] = header;
    require(isToken(name), "HttpConfig::headers contains a name that no header can have.");
    require(!isReserved(name),
            "HttpConfig::headers must not contain " + name + ", which the library sets itself.");
    requireText(value, "HttpConfig::headers: the value of " + name);
}

bool hasHeader(const HttpConfig& config, const char* name) {
    return std::any_of(config.headers.begin(), config.headers.end(), [name](const auto& header) {
        return equalsIgnoringCase(header.first, name);
    });
}

void checkCredentials(const HttpConfig& config) {
    require(!config.credentials || !hasHeader(config, "Authorization"),
            "HttpConfig::headers must not contain Authorization beside HttpConfig::credentials.");
    require(!config.proxyCredentials || !hasHeader(config, "Proxy-Authorization"),
            "HttpConfig::headers must not contain Proxy-Authorization beside "
            "HttpConfig::proxyCredentials.");
    const bool doesProxyReadHeaders = !config.proxy.empty() && !config.tls.enabled;
    require(doesProxyReadHeaders || !hasHeader(config, "Proxy-Authorization"),
            "HttpConfig::headers must not contain Proxy-Authorization, which the registry would be "
            "sent: use HttpConfig::proxyCredentials.");
    require(!config.proxyCredentials || !config.proxy.empty(),
            "HttpConfig::proxyCredentials needs a proxy.");
}

Origin makeOrigin(const std::string& host, std::uint32_t port) {
    return {std::string(withoutBrackets(host)), static_cast<std::uint16_t>(port),
            authority(host, port)};
}

/// The decimal number; 0 if the text is not a number of one to five digits.
std::uint32_t portIn(std::string_view text) {
    const bool isNumber = text.size() <= 5 && utility::isDecimal(text);
    return isNumber ? static_cast<std::uint32_t>(std::stoul(std::string(text))) : 0;
}

/// Parses "http://host:port". Returns an origin without a host for any other text.
Origin proxyIn(std::string_view url) {
    constexpr std::string_view kScheme = "http://";
    const auto colon = url.rfind(':');
    if (url.substr(0, kScheme.size()) != kScheme || colon < kScheme.size()) {
        return {};
    }
    const std::string host(url.substr(kScheme.size(), colon - kScheme.size()));
    const std::uint32_t port = portIn(url.substr(colon + 1));
    const bool isBracketed = host.find(':') == std::string::npos || host.front() == '[';
    const bool isOne = port >= 1 && port <= 65535 && isBracketed && !authority(host, port).empty();
    return isOne ? makeOrigin(host, port) : Origin{};
}

// The proxy's text is not part of the message, because it may contain a password.
void checkProxyAndSocket(const HttpConfig& config) {
    require(config.proxy.empty() || !proxyIn(config.proxy).host.empty(),
            "HttpConfig::proxy must be of the form http://host:port, without a user or a path.");
    requireText(config.unixSocketPath, "HttpConfig::unixSocketPath");
    constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
    require(config.unixSocketPath.size() <= kLongest,
            "HttpConfig::unixSocketPath must not be longer than " + std::to_string(kLongest) +
                " bytes.");
    require(config.proxy.empty() || config.unixSocketPath.empty(),
            "HttpConfig::proxy and HttpConfig::unixSocketPath cannot be used together.");
}

void checkNeedsTls(const TlsConfig& tls, bool isSet, const std::string& option) {
    require(tls.enabled || !isSet,
            "HttpConfig::tls." + option + " is set, and HttpConfig::tls.enabled is not.");
}

void checkTlsPath(const TlsConfig& tls, const std::string& path, const std::string& option) {
    requireText(path, "HttpConfig::tls." + option);
    checkNeedsTls(tls, !path.empty(), option);
}

void checkTls(const TlsConfig& tls) {
    checkTlsPath(tls, tls.authorityFile, "authorityFile");
    checkTlsPath(tls, tls.authorityFolder, "authorityFolder");
    checkTlsPath(tls, tls.clientCertificateFile, "clientCertificateFile");
    checkTlsPath(tls, tls.clientKeyFile, "clientKeyFile");
    checkNeedsTls(tls, tls.lowestVersion != TlsConfig::Version::Tls12, "lowestVersion");
    checkNeedsTls(tls, tls.disableServerVerification, "disableServerVerification");
    require(tls.clientKeyFile.empty() || !tls.clientCertificateFile.empty(),
            "HttpConfig::tls.clientKeyFile needs a clientCertificateFile.");
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
    checkCredentials(config);
    checkProxyAndSocket(config);
    checkTls(config.tls);
}

Origin originOf(const std::string& host, std::uint32_t port) {
    require(
        port >= 1 && port <= 65535,
        "The port of an endpoint must be between 1 and 65535, not " + std::to_string(port) + ".");
    Origin origin = makeOrigin(host, port);
    require(!origin.authority.empty(),
            "The host of an endpoint must be a name, an IPv4 address or an IPv6 address.");
    return origin;
}

Origin proxyOf(const HttpConfig& config) {
    return proxyIn(config.proxy);
}

}  // namespace orvx::communication
