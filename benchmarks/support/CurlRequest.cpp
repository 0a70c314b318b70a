// One request through libcurl with as few options as possible. One thread, no lock.

#include "CurlRequest.h"

#include <strings.h>

#include <string>
#include <string_view>

namespace orvx::benchmarks {

namespace {

constexpr long kTimeoutMilliseconds = 60000;

}  // namespace

CurlRequest::CurlRequest(const Address& server)
    : headers_{listOf({"Expect:", "Content-Type: application/json", "Accept: application/json"}),
               listOf({"Expect:", "Accept:"}),
               listOf({"Expect:", "Content-Type: application/json", "Accept:"})},
      easy_(curl_easy_init()) {
    curl_easy_setopt(easy(), CURLOPT_URL, server.url().c_str());
    curl_easy_setopt(easy(), CURLOPT_CAINFO, certificateFile().c_str());
    curl_easy_setopt(easy(), CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(easy(), CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    curl_easy_setopt(easy(), CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(easy(), CURLOPT_TIMEOUT_MS, kTimeoutMilliseconds);
    curl_easy_setopt(easy(), CURLOPT_HEADERFUNCTION, &CurlRequest::onHeader);
    curl_easy_setopt(easy(), CURLOPT_HEADERDATA, this);
}

void CurlRequest::setMethod(Method method) {
    method_ = method;
    curl_easy_setopt(easy(), CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(easy(), CURLOPT_NOBODY, method == Method::Head ? 1L : 0L);
    curl_easy_setopt(easy(), CURLOPT_CUSTOMREQUEST,
                     method == Method::Put      ? "PUT"
                     : method == Method::Delete ? "DELETE"
                                                : nullptr);
    curl_easy_setopt(easy(), CURLOPT_HTTPHEADER, headers_[static_cast<std::size_t>(method)].get());
}

void CurlRequest::setTarget(const Requests& requests, std::size_t index) {
    curl_easy_setopt(easy(), CURLOPT_REQUEST_TARGET, requests.target(method_, index).c_str());
    if (method_ == Method::Put) {
        const std::string& body = requests.bodies[index];
        curl_easy_setopt(easy(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(easy(), CURLOPT_POSTFIELDS, body.c_str());
    }
    hasLocation_ = false;
}

bool CurlRequest::isAnsweredRightly() const {
    long status = 0;
    curl_easy_getinfo(easy(), CURLINFO_RESPONSE_CODE, &status);
    return method_ == Method::Put ? (status == 201 && hasLocation_) : status == 200;
}

CurlRequest::List CurlRequest::listOf(std::initializer_list<const char*> lines) {
    List list;
    for (const char* const line : lines) {
        curl_slist* const longer = curl_slist_append(list.get(), line);
        static_cast<void>(list.release());
        list.reset(longer);
    }
    return list;
}

std::size_t CurlRequest::onHeader(char* line, std::size_t, std::size_t size, void* self) {
    constexpr std::string_view kName = "Location: ";
    if (size > kName.size() && (*line == 'L' || *line == 'l') &&
        ::strncasecmp(line, kName.data(), kName.size()) == 0) {
        static_cast<CurlRequest*>(self)->hasLocation_ = true;
    }
    return size;
}

}  // namespace orvx::benchmarks
