// Strict checks of an answer that Beast's parser lacks, the size limits, and the table that maps
// the parser's errors.
// Entered by the I/O thread only; there is no lock.

#include "AnswerReader.h"

#include <orvx/utility/Ascii.h>

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>

#include <algorithm>
#include <optional>
#include <utility>

namespace orvx::communication {

namespace {

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;
using utility::isDecimal;

// The limit for header lines, whatever the configuration says.
constexpr std::size_t kMostHeaderBytes = 300 * 1024;
// The limit for one chunk header with its extensions, and for the trailers, which are ignored.
constexpr std::size_t kMostFraming = 4096;
// The limit for all chunk headers together: a constant, and a number of bytes for each byte of the
// body.
constexpr std::size_t kFramingAtFirst = 64 * 1024;
constexpr std::size_t kFramingForAByte = 16;

/// Maps a parser's error to the status of the request.
CommunicationStatus statusOf(const error_code& error) {
    if (error == http::error::header_limit || error == http::error::body_limit ||
        error == http::error::buffer_overflow) {
        return CommunicationStatus::TooLarge;
    }
    return error == http::error::bad_alloc ? CommunicationStatus::OutOfMemory
                                           : CommunicationStatus::Malformed;
}

/// Whether the bytes match the beginning of an answer, as far as they go. Without this check the
/// parser would wait for more bytes of a text that cannot be an answer.
bool hasAnswerPrefix(std::string_view bytes) {
    constexpr std::string_view kBegin = "HTTP/1.";
    bytes = bytes.substr(0, kBegin.size());
    return kBegin.substr(0, bytes.size()) == bytes;
}

/// Whether the line is a Content-Length of more than 64 bits. The parser reports it as malformed.
bool isOversizedContentLength(std::string_view line) {
    line = line.substr(0, line.find('\r'));
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    line.remove_prefix(colon + 1);
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    line = line.substr(0, line.find_last_not_of(" \t") + 1);
    return line.size() > 19 && isDecimal(line);
}

}  // namespace

/// Parses one answer, interim or final.
class AnswerReader::Parser {
  public:
    void restart(Answer& answer, const Limits& limits) {
        message_.emplace(answer);
        message_->header_limit(static_cast<std::uint32_t>(kMostHeaderBytes + 1));
        message_->body_limit(std::uint64_t{limits.bodyBytes});
        message_->skip(limits.hasNoBody);
    }

    class Message : public http::basic_parser<false> {
      public:
        explicit Message(Answer& answer) : answer_(answer) {}
        /// Sets the input of the next put().
        void setInput(std::string_view input) { input_ = input; }

      private:
        void on_request_impl(http::verb, string_view, string_view, int, error_code&) override {}
        void on_response_impl(int code, string_view, int version, error_code& error) override {
            constexpr int kSwitchingProtocols = 101;
            constexpr int kHttp11 = 11;
            isHttp11_ = version == kHttp11;
            answer_.statusCode = code;
            if (code < 100 || code == kSwitchingProtocols) {
                error = http::error::bad_status;
            }
        }
        void on_field_impl(http::field field, string_view name, string_view value,
                           error_code& error) override {
            if (is_header_done()) {
                return;  // A trailer.
            }
            if (field == http::field::content_length && !isNewLength(name, value)) {
                error = http::error::bad_content_length;
            } else if (field == http::field::transfer_encoding &&
                       (!isHttp11_ || !boost::beast::iequals(value, "chunked"))) {
                error = http::error::bad_transfer_encoding;
            }
            answer_.headerLines.append(name.data(), name.size()).append(": ");
            answer_.headerLines.append(value.data(), value.size()).append("\r\n");
        }
        /// Newer versions of Beast call this function for a trailer. Older ones do not declare it,
        /// and refuse these fields themselves.
        void on_trailer_field_impl(http::field field, string_view, string_view, error_code& error) {
            if (field == http::field::content_length) {
                error = http::error::bad_content_length;
            } else if (field == http::field::transfer_encoding) {
                error = http::error::bad_transfer_encoding;
            }
        }
        void on_header_impl(error_code&) override {}
        void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
        std::size_t on_body_impl(string_view body, error_code&) override {
            answer_.body.append(body.data(), body.size());
            return body.size();
        }
        void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
        std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code&) override {
            answer_.body.append(body.data(), body.size());
            return body.size();
        }
        void on_finish_impl(error_code&) override {}

        /// Whether the value is one decimal number on the line of its name, spelled like any
        /// earlier one. A folded value begins on another line or is a copy outside the input.
        bool isNewLength(string_view name, string_view value) {
            const bool isOnItsLine = value.data() > name.data() &&
                                     value.data() < input_.data() + input_.size() &&
                                     std::find(name.data(), value.data(), '\n') == value.data();
            const std::string_view text(value.data(), value.size());
            const bool isValid =
                isOnItsLine && isDecimal(text) && (length_.empty() || length_ == text);
            length_ = text;
            return isValid;
        }

        Answer& answer_;
        std::string_view input_;
        std::string length_;
        bool isHttp11_ = false;
    };

    Message& operator*() { return *message_; }
    Message* operator->() { return &*message_; }

  private:
    std::optional<Message> message_;
};

AnswerReader::AnswerReader() : parser_(std::make_unique<Parser>()) {}

AnswerReader::~AnswerReader() = default;

void AnswerReader::begin(Answer& answer, const Limits& limits) {
    answer_ = &answer;
    limits_ = limits;
    limits_.headerBytes = std::min(limits_.headerBytes, kMostHeaderBytes);
    headerBytes_ = 0;
    framingBytes_ = 0;
    hasBegun_ = false;
    restart();
}

void AnswerReader::restart() {
    hasCode_ = false;
    answer_->headerLines.clear();
    parser_->restart(*answer_, limits_);
}

AnswerReader::Progress AnswerReader::take(ReadBuffer& bytes) {
    hasBegun_ = hasBegun_ || !bytes.view().empty();
    Parser& parser = *parser_;
    while (!bytes.view().empty()) {
        if (!hasCode_ && !hasAnswerPrefix(bytes.view())) {
            return refuse(CommunicationStatus::Malformed);
        }
        completeStatusLine(bytes);
        const bool isInHeader = !parser->is_header_done();
        const std::string_view input = bytes.view();
        parser->setInput(input);
        const std::size_t bodyBefore = answer_->body.size();
        error_code error;
        const std::size_t consumed = parser->put({input.data(), input.size()}, error);
        bytes.consume(consumed);
        headerBytes_ += isInHeader ? consumed : 0;
        framingBytes_ += isInHeader ? 0 : consumed - (answer_->body.size() - bodyBefore);
        if (framingBytes_ > kFramingAtFirst + kFramingForAByte * answer_->body.size()) {
            return refuse(CommunicationStatus::TooLarge);
        }
        const std::size_t held = input.size() - consumed;
        const bool isMoreNeeded = error == http::error::need_more;
        if (isInHeader &&
            headerBytes_ + (parser->is_header_done() ? 0 : held) > limits_.headerBytes &&
            (!error || isMoreNeeded)) {
            return refuse(CommunicationStatus::TooLarge);
        }
        if (isMoreNeeded && !isInHeader) {
            return waitForFraming(bytes.view());
        }
        if (isMoreNeeded) {
            return Progress::More;
        }
        if (error) {
            const bool isTooMuch = error == http::error::bad_content_length &&
                                   isOversizedContentLength(input.substr(consumed));
            return refuse(isTooMuch ? CommunicationStatus::TooLarge : statusOf(error));
        }
        if (parser->is_done()) {
            if (answer_->statusCode >= 200) {
                return Progress::Done;
            }
            restart();
        }
    }
    return Progress::More;
}

/// Handles an incomplete chunk header or incomplete trailers.
AnswerReader::Progress AnswerReader::waitForFraming(std::string_view part) {
    if (part.size() > kMostFraming) {
        return refuse(CommunicationStatus::TooLarge);
    }
    for (auto end = part.find('\n'); end != std::string_view::npos;
         end = part.find('\n', end + 1)) {
        if (end == 0 || part[end - 1] != '\r') {
            return refuse(
                CommunicationStatus::Malformed);  // The parser does not accept this end of line.
        }
    }
    return Progress::More;
}

// The parser requires a space after the status code. Servers that send no reason phrase omit it.
void AnswerReader::completeStatusLine(ReadBuffer& bytes) {
    constexpr std::size_t kEndOfCode = 12;  // HTTP/1.1 200
    const std::string_view view = bytes.view();
    if (hasCode_ || view.size() <= kEndOfCode) {
        return;
    }
    hasCode_ = true;
    if (view[kEndOfCode] == '\r') {
        bytes.insert(kEndOfCode, ' ');
        --headerBytes_;  // The inserted byte is consumed, but was not received.
    }
}

bool AnswerReader::finish() {
    error_code error;
    // Without any byte of the final answer, only interim answers have come.
    const bool hasPart = (*parser_)->got_some();
    if (hasPart) {
        (*parser_)->put_eof(error);
    }
    return hasPart && !error;
}

// The parser expects no body after these status codes, whatever is announced: a server that sends
// one would answer the next request with it. To a HEAD the announcement is allowed.
bool AnswerReader::isConnectionKept() const {
    Parser::Message& message = **parser_;
    const bool hasNoBody = answer_->statusCode == 204 || answer_->statusCode == 304;
    const bool announcesBody = message.chunked() || message.content_length().value_or(0) != 0;
    return message.keep_alive() && (limits_.hasNoBody || !hasNoBody || !announcesBody);
}

AnswerReader::Progress AnswerReader::refuse(CommunicationStatus why) {
    refusal_ = why;
    return Progress::Refused;
}

}  // namespace orvx::communication
