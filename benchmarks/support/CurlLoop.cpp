// A minimal loop on libcurl's multi interface: perform, collect, begin, poll. One thread, no lock.

#include "CurlLoop.h"

#include "Measure.h"

namespace orvx::benchmarks {

CurlLoop::CurlLoop(const Address& server, std::size_t connections) : multi_(curl_multi_init()) {
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(connections + 1));
    for (std::size_t i = 0; i < connections; ++i) {
        handles_.push_back(std::make_unique<CurlRequest>(server));
    }
}

CurlLoop::~CurlLoop() {
    handles_.clear();
    curl_multi_cleanup(multi_);
}

void CurlLoop::run(Method method, const Requests& requests) {
    next_ = 0;
    good_ = 0;
    for (const auto& handle : handles_) {
        handle->setMethod(method);
        begin(*handle, requests);
    }
    int running = 1;
    while (running > 0 || hasBegun_) {
        hasBegun_ = false;
        curl_multi_perform(multi_, &running);
        collect(requests);
        if (!hasBegun_ && running > 0) {
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
    }
    require(good_ == requests.size(), "libcurl alone got a wrong answer");
}

void CurlLoop::begin(CurlRequest& request, const Requests& requests) {
    if (next_ == requests.size()) {
        return;
    }
    request.setTarget(requests, next_++);
    curl_multi_add_handle(multi_, request.easy());
    hasBegun_ = true;
}

void CurlLoop::collect(const Requests& requests) {
    int ignored = 0;
    while (const CURLMsg* const message = curl_multi_info_read(multi_, &ignored)) {
        end(message->easy_handle, requests);
    }
}

void CurlLoop::end(CURL* easy, const Requests& requests) {
    CurlRequest* request = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &request);
    good_ += request->isAnsweredRightly() ? 1U : 0U;
    curl_multi_remove_handle(multi_, easy);
    begin(*request, requests);
}

}  // namespace orvx::benchmarks
