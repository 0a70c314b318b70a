#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvx::communication {

/// The common part of HTTP messages: headers and a body.
class ORVX_EXPORT HttpMessage {
  public:
    /// Name and value.
    using Header = std::pair<std::string, std::string>;

    virtual ~HttpMessage();

    /// All headers in the order received; names are spelled as received.
    virtual std::vector<Header> getHeaders() const = 0;
    /// The value of the first header with that name, ignoring case, without surrounding white
    /// space.
    virtual std::optional<std::string> getHeader(const std::string& name) const = 0;
    /// Whether there is a header with that name, ignoring case.
    virtual bool hasHeader(const std::string& name) const = 0;
    /// The Content-Type header.
    virtual std::optional<std::string> getContentType() const = 0;
    /// The length of the received body in bytes.
    virtual std::uint64_t getContentLength() const = 0;
    /// The body as received; empty if there is none.
    virtual const std::string& getBody() const = 0;

  protected:
    HttpMessage() = default;
    HttpMessage(const HttpMessage&) = default;
    HttpMessage(HttpMessage&&) = default;
    HttpMessage& operator=(const HttpMessage&) = default;
    HttpMessage& operator=(HttpMessage&&) = default;
};

}  // namespace orvx::communication
