#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvx::communication {

/// What all HTTP messages have: headers and a body.
class ORVX_EXPORT HttpMessage {
  public:
    /// Name and value.
    using Header = std::pair<std::string, std::string>;

    virtual ~HttpMessage();

    /// All headers in the order received, names as they were spelt.
    virtual std::vector<Header> getHeaders() const = 0;
    /// The first header of that name, upper and lower case alike, without the space around it.
    virtual std::optional<std::string> getHeader(const std::string& name) const = 0;
    /// Whether there is a header of that name, upper and lower case alike.
    virtual bool hasHeader(const std::string& name) const = 0;
    /// The Content-Type header.
    virtual std::optional<std::string> getContentType() const = 0;
    /// The length of the body that is here, in bytes.
    virtual std::uint64_t getContentLength() const = 0;
    /// The body as received; empty where there is none.
    virtual const std::string& getBody() const = 0;

  protected:
    HttpMessage() = default;
    HttpMessage(const HttpMessage&) = default;
    HttpMessage(HttpMessage&&) = default;
    HttpMessage& operator=(const HttpMessage&) = default;
    HttpMessage& operator=(HttpMessage&&) = default;
};

}  // namespace orvx::communication
