// The part of HTTP that is needed to build a response and to parse a request.
//
// Threads: pure functions, no shared state. No locks.

#include "Http.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

namespace orvx::testing {
namespace {

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool framesItself(const Headers& headers) {
    return std::any_of(headers.begin(), headers.end(), [](const auto& header) {
        return sameName(header.first, "Content-Length") ||
               sameName(header.first, "Transfer-Encoding");
    });
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Removes the text up to the separator from the front, or the whole text if there is no separator.
/// Returns the removed text.
std::string cut(std::string_view& text, std::string_view separator) {
    const auto end = std::min(text.find(separator), text.size());
    const std::string piece(text.substr(0, end));
    text.remove_prefix(std::min(end + separator.size(), text.size()));
    return piece;
}

std::size_t bodyLength(const Request& request) {
    const std::string text = request.header("Content-Length").value_or("0");
    std::size_t length = 0;
    std::from_chars(text.data(), text.data() + text.size(), length);
    return length;
}

Request parseHead(std::string_view head) {
    Request request;
    const std::string requestLine = cut(head, "\r\n");
    std::string_view words = requestLine;
    request.method = cut(words, " ");
    request.target = cut(words, " ");
    request.version = words;
    while (!head.empty()) {
        request.headerLines.push_back(cut(head, "\r\n"));
    }
    return request;
}

}  // namespace

std::string response(int status, const Headers& headers, const std::string& body) {
    std::string bytes = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
    for (const auto& [name, value] : headers) {
        bytes += name + ": " + value + "\r\n";
    }
    if (status >= 200 && status != 204 && !framesItself(headers)) {
        bytes += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return bytes + "\r\n" + body;
}

std::optional<std::string> Request::header(std::string_view name) const {
    for (std::string_view rest : headerLines) {
        if (sameName(cut(rest, ":"), name)) {
            return std::string(trimmed(rest));
        }
    }
    return std::nullopt;
}

std::optional<Request> firstRequest(std::string_view bytes) {
    constexpr std::string_view kHeadEnd = "\r\n\r\n";
    const auto headSize = bytes.find(kHeadEnd);
    if (headSize == std::string_view::npos) {
        return std::nullopt;
    }
    Request request = parseHead(bytes.substr(0, headSize));
    const auto bodyStart = headSize + kHeadEnd.size();
    const auto length = bodyLength(request);
    if (bytes.size() - bodyStart < length) {
        return std::nullopt;
    }
    request.body = bytes.substr(bodyStart, length);
    request.raw = bytes.substr(0, bodyStart + length);
    return request;
}

}  // namespace orvx::testing
