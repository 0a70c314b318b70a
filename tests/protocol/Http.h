#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvx::testing {

using Headers = std::vector<std::pair<std::string, std::string>>;

/// The bytes of a response. Content-Length is added where a response may have one, unless `headers`
/// holds a Content-Length or Transfer-Encoding of its own, be it a wrong one.
std::string response(int status, const Headers& headers = {}, const std::string& body = {});

/// A request as it came over the wire.
struct Request {
    std::size_t connection = 0;  ///< Index of the accepted connection, the first is zero.
    std::string method;
    std::string target;
    std::string version;                   ///< Such as "HTTP/1.1".
    std::vector<std::string> headerLines;  ///< Without the line ends.
    std::string body;
    std::string raw;  ///< Every byte, from the request line to the end of the body.

    /// The value of the first header of that name in whatever case, without the space around it;
    /// nothing if there is none.
    std::optional<std::string> header(std::string_view name) const;
};

/// The first request in `bytes`, if it is complete: its head, and the body its Content-Length
/// announces. Chunked bodies are not understood.
std::optional<Request> firstRequest(std::string_view bytes);

}  // namespace orvx::testing
