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
/// contains a Content-Length or Transfer-Encoding, even an invalid one.
std::string response(int status, const Headers& headers = {}, const std::string& body = {});

/// A request as it was received.
struct Request {
    std::size_t connection = 0;  ///< The index of the accepted connection, from zero.
    std::string method;
    std::string target;
    std::string version;                   ///< For example "HTTP/1.1".
    std::vector<std::string> headerLines;  ///< Without line ends.
    std::string body;
    std::string raw;  ///< All bytes, from the request line to the end of the body.

    /// The value of the first header with this name, ignoring case, without the space around the
    /// value; absent if there is none.
    std::optional<std::string> header(std::string_view name) const;
};

/// The first request in `bytes`, if it is complete: its head, and the body as long as its
/// Content-Length. Chunked bodies are not supported.
std::optional<Request> firstRequest(std::string_view bytes);

}  // namespace orvx::testing
