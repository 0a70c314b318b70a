// The strict part of reading an answer: status lines, the end of the headers, the caps.
// Entered by the I/O thread only, from libcurl's callbacks; there is no lock.

#include "AnswerReader.h"

#include <curl/curl.h>

#include <algorithm>

namespace orvx::communication {

namespace {

// libcurl fails with more, with a result that does not tell why.
constexpr std::size_t kMostHeaderBytes = 300 * 1024;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// "HTTP/1.0" or "HTTP/1.1", a space, three digits, and the end or a space; 0 if it is not that.
int statusCodeOf(std::string_view line) {
    constexpr std::string_view kProtocol = "HTTP/1.";
    constexpr std::string_view kAfterCode = " \r\n";
    const bool isStatusLine = line.size() > 12 && line.substr(0, kProtocol.size()) == kProtocol &&
                              (line[7] == '0' || line[7] == '1') && line[8] == ' ' &&
                              std::all_of(line.begin() + 9, line.begin() + 12, isDigit) &&
                              kAfterCode.find(line[12]) != std::string_view::npos;
    if (!isStatusLine) {
        return 0;
    }
    return (line[9] - '0') * 100 + (line[10] - '0') * 10 + (line[11] - '0');
}

/// The value of a Content-Length header, without the space around it; null if it is another header.
std::string_view contentLengthIn(std::string_view line) {
    constexpr std::string_view kName = "Content-Length:";
    constexpr std::string_view kSpace = " \t\r\n";
    if (line.size() < kName.size() ||
        curl_strnequal(line.data(), kName.data(), kName.size()) == 0) {
        return {};
    }
    line.remove_prefix(kName.size());
    line.remove_prefix(std::min(line.find_first_not_of(kSpace), line.size()));
    return line.substr(0, line.find_last_not_of(kSpace) + 1);
}

/// What libcurl takes for the end of the headers, whatever follows on the line.
bool endsHeaders(std::string_view line) {
    return line.front() == '\r' || line.front() == '\n';
}

bool isBlank(std::string_view line) {
    return line == "\r\n" || line == "\n";
}

}  // namespace

void AnswerReader::begin(Request& request) {
    request_ = &request;
    expected_ = Expected::StatusLine;
    headerBytes_ = 0;
    length_.clear();
    isLengthLast_ = false;
    refusal_.reset();
}

bool AnswerReader::takeHeaderLine(std::string_view line) {
    headerBytes_ += line.size();
    if (headerBytes_ > std::min(request_->settings->config.maxHeaderBytes, kMostHeaderBytes)) {
        return refuse(CommunicationStatus::TooLarge);
    }
    if (expected_ == Expected::StatusLine) {
        return takeStatusLine(line);
    }
    if (endsHeaders(line)) {
        if (!isBlank(line)) {
            return refuse(CommunicationStatus::Malformed);
        }
        expected_ = isInterim() ? Expected::StatusLine : Expected::Body;
    } else if (expected_ == Expected::Header && !isInterim()) {
        return takeHeader(line);
    }
    return true;
}

bool AnswerReader::takeHeader(std::string_view line) {
    request_->headerLines.append(line);
    const bool isFolded = line.front() == ' ' || line.front() == '\t';
    if (isFolded) {
        return !isLengthLast_ || refuse(CommunicationStatus::Malformed);
    }
    const std::string_view length = contentLengthIn(line);
    isLengthLast_ = length.data() != nullptr;
    if (!isLengthLast_) {
        return true;
    }
    const bool isNumber = !length.empty() && std::all_of(length.begin(), length.end(), isDigit);
    if (!isNumber || (!length_.empty() && length_ != length)) {
        return refuse(CommunicationStatus::Malformed);
    }
    length_ = length;
    return true;
}

bool AnswerReader::takeStatusLine(std::string_view line) {
    constexpr int kSwitchingProtocols = 101;
    request_->statusCode = statusCodeOf(line);
    if (request_->statusCode < 100 || request_->statusCode == kSwitchingProtocols) {
        return refuse(CommunicationStatus::Malformed);
    }
    expected_ = Expected::Header;
    return true;
}

bool AnswerReader::takeBody(std::string_view bytes) {
    if (!hasAllHeaders()) {
        return refuse(CommunicationStatus::Malformed);
    }
    if (bytes.size() > request_->settings->config.maxBodyBytes - request_->body.size()) {
        return refuse(CommunicationStatus::TooLarge);
    }
    request_->body.append(bytes);
    return true;
}

bool AnswerReader::refuse(CommunicationStatus why) {
    refusal_ = why;
    return false;
}

}  // namespace orvx::communication
