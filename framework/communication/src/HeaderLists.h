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
    /// header. With the credentials of this moment. Throws std::bad_alloc.
    List get(const HttpConfig& config, const std::string& contentType, const std::string& accept);
    /// What is said to the proxy besides; null if nothing. Throws std::bad_alloc.
    static List forProxy(const HttpConfig& config);

  private:
    struct Entry {
        std::string contentType;
        std::string accept;
        List list;
    };
    std::string authorization_;  // Of all of them.
    std::vector<Entry> entries_;
};

}  // namespace orvx::communication
