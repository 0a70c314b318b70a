// The outcome of a request. The header lines are kept as they came and taken apart when somebody
// asks: of most answers nobody reads more than one header.
// A value without a lock: several threads may read it.

#include <orvx/communication/HttpResponse.h>

#include <algorithm>
#include <string_view>

namespace orvx::communication {

namespace {

std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameName(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return toLower(a) == toLower(b); });
}

/// Takes the first line off `text`; the line comes without its end.
std::string_view takeLine(std::string_view& text) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

}  // namespace

HttpResponse::HttpResponse(CommunicationStatus status)
    : communicationStatus_(status), statusCode_(StatusCode::None) {}

HttpResponse::HttpResponse(StatusCode statusCode, std::string headerLines, std::string body)
    : communicationStatus_(CommunicationStatus::Ok),
      statusCode_(statusCode),
      headerLines_(std::move(headerLines)),
      body_(std::move(body)) {}

HttpResponse::~HttpResponse() = default;

std::vector<HttpMessage::Header> HttpResponse::getHeaders() const {
    std::vector<Header> headers;
    bool inHeader = false;
    for (std::string_view rest = headerLines_; !rest.empty();) {
        const std::string_view line = takeLine(rest);
        const bool folded = !line.empty() && (line.front() == ' ' || line.front() == '\t');
        const auto colon = line.find(':');
        if (folded && inHeader) {
            std::string& value = headers.back().second;
            const std::string_view more = trimmed(line);
            value.append(value.empty() || more.empty() ? "" : " ").append(more);
        } else if (!folded) {
            inHeader = colon != std::string_view::npos;
            if (inHeader) {
                headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
            }
        }
    }
    return headers;
}

std::optional<std::string> HttpResponse::getHeader(const std::string& name) const {
    for (Header& header : getHeaders()) {
        if (sameName(header.first, name)) {
            return std::move(header.second);
        }
    }
    return std::nullopt;
}

bool HttpResponse::hasHeader(const std::string& name) const {
    return getHeader(name).has_value();
}

std::optional<std::string> HttpResponse::getContentType() const {
    return getHeader("Content-Type");
}

std::uint64_t HttpResponse::getContentLength() const {
    return body_.size();
}

const std::string& HttpResponse::getBody() const {
    return body_;
}

}  // namespace orvx::communication
