// Builds the request line and the headers.
// Entered by the I/O thread only; there is no lock. Nothing needs to be escaped here: values from
// users were checked when the session or the request was made.

#include "RequestHead.h"

#include <orvx/utility/Ascii.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace orvx::communication {

namespace {

void appendLine(std::string& lines, std::string_view name, std::string_view value) {
    lines.append(name).append(":");
    if (value.find_first_not_of(' ') != std::string_view::npos) {
        lines.append(" ").append(value);
    }
    lines.append("\r\n");
}

void appendLineUnlessEmpty(std::string& lines, std::string_view name, std::string_view value) {
    if (!value.empty()) {
        appendLine(lines, name, value);
    }
}

std::string valueOf(const std::shared_ptr<HttpCredentials>& credentials) {
    return credentials ? credentials->headerValue() : std::string();
}

bool hasUserAgent(const std::vector<HttpConfig::Header>& headers) {
    return std::any_of(headers.begin(), headers.end(), [](const HttpConfig::Header& header) {
        return utility::equalsIgnoringCase(header.first, "User-Agent");
    });
}

bool isReadByProxy(const EndpointSettings& settings) {
    return !settings.proxy.host.empty() && !settings.config.tls.enabled;
}

/// The value of the Host header, and the authority of a target in absolute form, which must be
/// equal. As in a URL, the scheme's default port is omitted.
std::string_view hostOf(const EndpointSettings& settings) {
    const bool isTls = settings.config.tls.enabled;
    std::string_view host = settings.origin.authority;
    if (settings.origin.port == (isTls ? 443 : 80)) {
        host.remove_suffix(isTls ? 4 : 3);  // ":443", ":80"
    }
    return host;
}

}  // namespace

const std::string& RequestHeads::make(const Request& request) {
    const std::string& lines = headerLinesFor(request);
    head_.assign(methodToString(methodOf(request.kind))).append(" ");
    if (isReadByProxy(*request.settings)) {
        head_.append("http://").append(hostOf(*request.settings));
    }
    head_.append(request.target).append(" HTTP/1.1\r\n").append(lines);
    if (request.kind == Request::Kind::Put) {
        appendLine(head_, "Content-Length", std::to_string(request.length));
    }
    return head_.append("\r\n");
}

const std::string& RequestHeads::headerLinesFor(const Request& request) {
    constexpr std::size_t kMost = 8;
    const EndpointSettings& settings = *request.settings;
    const HttpConfig& config = settings.config;
    std::string authorization = valueOf(config.credentials);
    std::string proxyAuthorization =
        isReadByProxy(settings) ? valueOf(config.proxyCredentials) : std::string();
    if (authorization != authorization_ || proxyAuthorization != proxyAuthorization_) {
        entries_.clear();
        authorization_ = std::move(authorization);
        proxyAuthorization_ = std::move(proxyAuthorization);
    }
    for (const Entry& entry : entries_) {
        if (entry.contentType == request.contentType && entry.accept == request.accept) {
            return entry.lines;
        }
    }
    if (entries_.size() == kMost) {
        entries_.clear();
    }
    std::string lines;
    appendLine(lines, "Host", hostOf(settings));
    if (!hasUserAgent(config.headers)) {
        appendLineUnlessEmpty(lines, "User-Agent", config.userAgent);
    }
    appendLineUnlessEmpty(lines, "Proxy-Authorization", proxyAuthorization_);
    appendLineUnlessEmpty(lines, "Authorization", authorization_);
    appendLineUnlessEmpty(lines, "Content-Type", request.contentType);
    appendLineUnlessEmpty(lines, "Accept", request.accept);
    for (const auto& [name, value] : config.headers) {
        appendLine(lines, name, value);
    }
    entries_.push_back({request.contentType, request.accept, std::move(lines)});
    return entries_.back().lines;
}

std::string tunnelHead(const EndpointSettings& settings) {
    std::string head = "CONNECT " + settings.origin.authority + " HTTP/1.1\r\n";
    appendLine(head, "Host", settings.origin.authority);
    appendLineUnlessEmpty(head, "User-Agent", settings.config.userAgent);
    appendLineUnlessEmpty(head, "Proxy-Authorization", valueOf(settings.config.proxyCredentials));
    return head.append("\r\n");
}

}  // namespace orvx::communication
