#pragma once

#include "Requests.h"
#include "Transport.h"

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <memory>

namespace orvx::benchmarks {

/// A handle of libcurl that is kept from request to request. It sends the same header lines as the
/// library; of an answer it reads the status and the location.
class CurlRequest {
  public:
    explicit CurlRequest(const Address& server);
    CurlRequest(const CurlRequest&) = delete;
    CurlRequest& operator=(const CurlRequest&) = delete;

    /// Sets the options that all requests of a method share.
    void setMethod(Method method);
    /// The requests must outlive the transfer.
    void setTarget(const Requests& requests, std::size_t index);
    bool isAnsweredRightly() const;

    CURL* easy() const { return easy_.get(); }

  private:
    struct EasyDeleter {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    struct ListDeleter {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };
    using List = std::unique_ptr<curl_slist, ListDeleter>;

    static List listOf(std::initializer_list<const char*> lines);
    static std::size_t onHeader(char* line, std::size_t, std::size_t size, void* self);

    const std::array<List, 3> headers_;  // Before the handle, which refers to them.
    const std::unique_ptr<CURL, EasyDeleter> easy_;
    Method method_ = Method::Head;
    bool hasLocation_ = false;
};

}  // namespace orvx::benchmarks
