// The outcome of a request. The header lines are stored as received and parsed on demand, because
// most callers read one header at most.
// A value without a lock: several threads may read it.

#include <orvx/communication/HttpResponse.h>

#include <orvx/utility/Ascii.h>

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

/// Removes the first line from `text` and returns it without its end.
std::string_view takeLine(std::string_view& text) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

bool isFolded(std::string_view line) {
    return !line.empty() && (line.front() == ' ' || line.front() == '\t');
}

/// Iterates over header lines, one header at a time. Builds only the values that are read.
class HeaderReader {
  public:
    explicit HeaderReader(std::string_view lines) : rest_(lines) {}

    /// Moves to the next header; returns false at the end. Skips lines without a colon and their
    /// folded lines.
    bool next() {
        while (!rest_.empty()) {
            line_ = takeLine(rest_);
            colon_ = line_.find(':');
            if (!isFolded(line_) && colon_ != std::string_view::npos) {
                return true;
            }
        }
        return false;
    }
    std::string_view name() const { return line_.substr(0, colon_); }
    /// The value, joined with its folded lines by single spaces.
    std::string value() const {
        std::string value(trimmed(line_.substr(colon_ + 1)));
        for (std::string_view rest = rest_; isFolded(rest);) {
            const std::string_view more = trimmed(takeLine(rest));
            value.append(value.empty() || more.empty() ? "" : " ").append(more);
        }
        return value;
    }

  private:
    std::string_view rest_;
    std::string_view line_;
    std::size_t colon_ = 0;
};

}  // namespace

HttpResponse::HttpResponse(CommunicationStatus status) : HttpResponse(status, std::string()) {}

HttpResponse::HttpResponse(CommunicationStatus status, std::string cause)
    : communicationStatus_(status), statusCode_(StatusCode::None), body_(std::move(cause)) {}

HttpResponse::HttpResponse(StatusCode statusCode, std::string headerLines, std::string body)
    : communicationStatus_(CommunicationStatus::Ok),
      statusCode_(statusCode),
      headerLines_(std::move(headerLines)),
      body_(std::move(body)) {}

HttpResponse::~HttpResponse() = default;

std::vector<HttpMessage::Header> HttpResponse::getHeaders() const {
    std::vector<Header> headers;
    HeaderReader reader(headerLines_);
    while (reader.next()) {
        headers.emplace_back(reader.name(), reader.value());
    }
    return headers;
}

std::optional<std::string> HttpResponse::getHeader(const std::string& name) const {
    HeaderReader reader(headerLines_);
    while (reader.next()) {
        if (utility::equalsIgnoringCase(reader.name(), name)) {
            return reader.value();
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
    return getBody().size();
}

const std::string& HttpResponse::getBody() const {
    return communicationStatus_ == CommunicationStatus::Ok ? body_ : headerLines_;
}

std::string HttpResponse::getCause() const {
    return communicationStatus_ == CommunicationStatus::Ok ? std::string() : body_;
}

}  // namespace orvx::communication
