#pragma once

#include "Request.h"

#include <string>
#include <vector>

namespace orvx::communication {

/// Builds the heads of one endpoint's requests. Header lines are cached, because a client sends few
/// different ones. For the I/O thread only.
class RequestHeads {
  public:
    /// The request line and the headers, with the current credentials. Valid until the next call.
    /// Throws std::bad_alloc.
    const std::string& make(const Request& request);

  private:
    struct Entry {
        std::string contentType;
        std::string accept;
        std::string lines;
    };

    const std::string& headerLinesFor(const Request& request);

    std::string authorization_;  // Of all entries.
    std::string proxyAuthorization_;
    std::vector<Entry> entries_;
    std::string head_;
};

/// The CONNECT request for a tunnel to the server. Throws std::bad_alloc.
std::string tunnelHead(const EndpointSettings& settings);

}  // namespace orvx::communication
