#pragma once

#include "Request.h"

#include <optional>
#include <string_view>

namespace orvx::communication {

/// Takes in the answer to one request as libcurl hands it out, and says no to what is not a proper
/// HTTP/1 answer or too much of one. libcurl alone is more lenient: it takes a status line of
/// HTTP/2, an upgrade that nobody asked for, and an answer that is cut off inside its headers.
///
/// For the I/O thread only.
class AnswerReader {
  public:
    /// The answer goes into the request, which must outlive what follows.
    void begin(Request& request);

    /// Both are false when the transfer is to be ended: refusal() says why.
    bool takeHeaderLine(std::string_view line);
    bool takeBody(std::string_view bytes);

    bool hasBegun() const { return headerBytes_ != 0; }
    /// Whether the blank line that ends the headers of the final answer has come.
    bool hasAllHeaders() const { return expected_ == Expected::Body; }
    std::optional<CommunicationStatus> refusal() const { return refusal_; }
    /// Always false.
    bool refuse(CommunicationStatus why);

  private:
    enum class Expected { StatusLine, Header, Body };

    bool takeStatusLine(std::string_view line);
    bool takeHeader(std::string_view line);
    bool isInterim() const { return request_->statusCode < 200; }

    Request* request_ = nullptr;
    Expected expected_ = Expected::StatusLine;
    std::size_t headerBytes_ = 0;
    std::string length_;         // What the answer says of its body; empty if nothing.
    bool isLengthLast_ = false;  // So that a folded line would go on with it.
    std::optional<CommunicationStatus> refusal_;
};

}  // namespace orvx::communication
