// A bare loop on libcurl's multi interface: perform, collect, begin, poll.
// One thread, no lock.

#include "CurlLoop.h"

#include "Measure.h"

#include <strings.h>

#include <algorithm>
#include <string>

namespace orvx::benchmarks {

namespace {

constexpr long kTimeoutMilliseconds = 60000;

curl_slist* listOf(std::initializer_list<const char*> lines) {
    curl_slist* list = nullptr;
    for (const char* const line : lines) {
        list = curl_slist_append(list, line);
    }
    return list;
}

}  // namespace

CurlLoop::CurlLoop(std::uint16_t port, std::size_t connections)
    : multi_(curl_multi_init()),
      jsonHeaders_(
          listOf({"Expect:", "Content-Type: application/json", "Accept: application/json"})),
      deleteHeaders_(listOf({"Expect:", "Content-Type: application/json", "Accept:"})),
      headHeaders_(listOf({"Expect:", "Accept:"})),
      handles_(connections) {
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(connections + 1));
    for (Handle& handle : handles_) {
        setUp(handle, port);
    }
}

CurlLoop::~CurlLoop() {
    for (const Handle& handle : handles_) {
        curl_easy_cleanup(handle.easy);
    }
    curl_multi_cleanup(multi_);
    for (curl_slist* const list : {jsonHeaders_, deleteHeaders_, headHeaders_}) {
        curl_slist_free_all(list);
    }
}

void CurlLoop::setUp(Handle& handle, std::uint16_t port) {
    handle.easy = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(port);
    curl_easy_setopt(handle.easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.easy, CURLOPT_PRIVATE, &handle);
    curl_easy_setopt(handle.easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.easy, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle.easy, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(handle.easy, CURLOPT_TIMEOUT_MS, kTimeoutMilliseconds);
    curl_easy_setopt(handle.easy, CURLOPT_HEADERFUNCTION, &CurlLoop::onHeader);
    curl_easy_setopt(handle.easy, CURLOPT_HEADERDATA, &handle);
}

void CurlLoop::setMethod(Handle& handle, Method method) const {
    const bool isPut = method == Method::Put;
    curl_easy_setopt(handle.easy, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(handle.easy, CURLOPT_NOBODY, method == Method::Head ? 1L : 0L);
    curl_easy_setopt(handle.easy, CURLOPT_CUSTOMREQUEST,
                     isPut                      ? "PUT"
                     : method == Method::Delete ? "DELETE"
                                                : nullptr);
    curl_easy_setopt(handle.easy, CURLOPT_HTTPHEADER,
                     isPut                      ? jsonHeaders_
                     : method == Method::Delete ? deleteHeaders_
                                                : headHeaders_);
}

void CurlLoop::run(Method method, const Requests& requests) {
    next_ = 0;
    good_ = 0;
    for (Handle& handle : handles_) {
        setMethod(handle, method);
        begin(handle, method, requests);
    }
    int running = 1;
    while (running > 0 || hasBegun_) {
        hasBegun_ = false;
        curl_multi_perform(multi_, &running);
        collect(method, requests);
        if (!hasBegun_ && running > 0) {
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
    }
    require(good_ == requests.size(), "libcurl alone got a wrong answer");
}

void CurlLoop::begin(Handle& handle, Method method, const Requests& requests) {
    if (next_ == requests.size()) {
        return;
    }
    const std::size_t index = next_++;
    curl_easy_setopt(handle.easy, CURLOPT_REQUEST_TARGET, requests.target(method, index).c_str());
    if (method == Method::Put) {
        const std::string& body = requests.bodies[index];
        curl_easy_setopt(handle.easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(handle.easy, CURLOPT_POSTFIELDS, body.c_str());
    }
    handle.hasLocation = false;
    curl_multi_add_handle(multi_, handle.easy);
    hasBegun_ = true;
}

void CurlLoop::collect(Method method, const Requests& requests) {
    int ignored = 0;
    while (const CURLMsg* const message = curl_multi_info_read(multi_, &ignored)) {
        end(message->easy_handle, method, requests);
    }
}

void CurlLoop::end(CURL* easy, Method method, const Requests& requests) {
    Handle* handle = nullptr;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &handle);
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    good_ += method == Method::Put ? (status == 201 && handle->hasLocation) : status == 200;
    curl_multi_remove_handle(multi_, easy);
    begin(*handle, method, requests);
}

std::size_t CurlLoop::onHeader(char* line, std::size_t, std::size_t size, void* handle) {
    constexpr std::string_view kName = "Location: ";
    if (size > kName.size() && (*line == 'L' || *line == 'l') &&
        ::strncasecmp(line, kName.data(), kName.size()) == 0) {
        static_cast<Handle*>(handle)->hasLocation = true;
    }
    return size;
}

}  // namespace orvx::benchmarks
