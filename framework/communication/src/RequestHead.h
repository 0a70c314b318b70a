#pragma once

#include "Request.h"

#include <string>
#include <vector>

namespace orvx::communication {

/// The heads of the requests of one endpoint. What they have in common is kept: a client sends the
/// same few over and over. For the I/O thread only.
class RequestHeads {
  public:
    /// All before the body, with the credentials of this moment; valid until the next call. Throws
    /// std::bad_alloc.
    const std::string& make(const Request& request);

  private:
    struct Entry {
        std::string contentType;
        std::string accept;
        std::string lines;
    };

    const std::string& linesOf(const Request& request);

    std::string authorization_;  // Of all of them.
    std::string proxyAuthorization_;
    std::vector<Entry> entries_;
    std::string head_;
};

/// The request for a tunnel to the server. Throws std::bad_alloc.
std::string tunnelHead(const EndpointSettings& settings);

}  // namespace orvx::communication
