#pragma once

#include "CurlRequest.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace orvx::benchmarks {

/// The yardstick: libcurl's multi interface with as little other code as possible. Handles are
/// kept, and are set up once for a method.
class CurlLoop {
  public:
    CurlLoop(const Address& server, std::size_t connections);
    ~CurlLoop();
    CurlLoop(const CurlLoop&) = delete;
    CurlLoop& operator=(const CurlLoop&) = delete;

    /// Sends all requests and waits for the answers. Throws unless each answer is as expected.
    void run(Method method, const Requests& requests);

  private:
    void begin(CurlRequest& request, const Requests& requests);
    void end(CURL* easy, const Requests& requests);
    void collect(const Requests& requests);

    CURLM* const multi_;
    std::vector<std::unique_ptr<CurlRequest>> handles_;
    std::size_t next_ = 0;
    std::size_t good_ = 0;
    bool hasBegun_ = false;
};

}  // namespace orvx::benchmarks
