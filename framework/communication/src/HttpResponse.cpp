// The outcome of a request. The header lines are kept as they came and taken apart when somebody
// asks: of most answers nobody reads more than one header.
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

/// Takes the first line off `text`; the line comes without its end.
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

/// Goes through header lines, one header after another. Only the value that is asked for is put
/// together.
class HeaderReader {
  public:
    explicit HeaderReader(std::string_view lines) : rest_(lines) {}

    /// To the next header; false at the end. A line without a colon, and what is folded to it, is
    /// none.
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
    /// With the lines that are folded to it, a space for each end of a line.
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
