#pragma once

#include <orvx/communication/HttpConfig.h>

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

namespace orvx::communication {

/// The header lines of the requests of one endpoint, kept as libcurl wants them: a client sends the
/// same few over and over. For the I/O thread only.
class HeaderLists {
  public:
    using List = std::shared_ptr<curl_slist>;

    /// The list for requests with these values, of which either may be empty: then there is no such
    /// header. Throws std::bad_alloc.
    List get(const HttpConfig& config, const std::string& contentType, const std::string& accept);

  private:
    struct Entry {
        std::string contentType;
        std::string accept;
        List list;
    };
    std::vector<Entry> entries_;
};

}  // namespace orvx::communication
