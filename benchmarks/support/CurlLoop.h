#pragma once

#include "Requests.h"

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace orvx::benchmarks {

/// The yardstick: libcurl's multi interface with as little around it as can be. Handles are kept
/// and set up once for a method; of an answer it looks at the status and the location.
class CurlLoop {
  public:
    CurlLoop(std::uint16_t port, std::size_t connections);
    ~CurlLoop();
    CurlLoop(const CurlLoop&) = delete;
    CurlLoop& operator=(const CurlLoop&) = delete;

    /// Sends all requests and waits for the answers. Throws unless each is what it should be.
    void run(Method method, const Requests& requests);

  private:
    struct Handle {
        CURL* easy = nullptr;
        bool hasLocation = false;
    };

    void setUp(Handle& handle, std::uint16_t port);
    void setMethod(Handle& handle, Method method) const;
    void begin(Handle& handle, Method method, const Requests& requests);
    void end(CURL* easy, Method method, const Requests& requests);
    void collect(Method method, const Requests& requests);
    static std::size_t onHeader(char* line, std::size_t, std::size_t size, void* handle);

    CURLM* const multi_;
    curl_slist* jsonHeaders_ = nullptr;
    curl_slist* deleteHeaders_ = nullptr;
    curl_slist* headHeaders_ = nullptr;
    std::vector<Handle> handles_;
    std::size_t next_ = 0;
    std::size_t good_ = 0;
    bool hasBegun_ = false;
};

}  // namespace orvx::benchmarks
