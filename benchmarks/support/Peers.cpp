// Other ways to send the same requests. The threads of ThreadsPeer live as long as a run and share
// only constant objects.

#include "Peers.h"

#include "Measure.h"

#include <httplib.h>

#include <future>

namespace orvx::benchmarks {

HttplibPeer::HttplibPeer(const Address& server)
    : client_(std::make_unique<httplib::Client>("127.0.0.1", server.port)) {
    client_->set_keep_alive(true);
    client_->set_tcp_nodelay(true);
}

HttplibPeer::~HttplibPeer() = default;

void HttplibPeer::run(Method method, const Requests& requests) {
    constexpr const char* kJson = "application/json";
    const httplib::Headers putHeaders{{"User-Agent", kUserAgent}, {"Accept", kJson}};
    const httplib::Headers deleteHeaders{{"User-Agent", kUserAgent}, {"Content-Type", kJson}};
    const httplib::Headers headHeaders{{"User-Agent", kUserAgent}};
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const std::string& target = requests.target(method, i);
        const httplib::Result answer =
            method == Method::Put    ? client_->Put(target, putHeaders, requests.bodies[i], kJson)
            : method == Method::Head ? client_->Head(target, headHeaders)
                                     : client_->Delete(target, deleteHeaders);
        require(answer &&
                    (method == Method::Put ? answer->status == 201 && answer->has_header("Location")
                                           : answer->status == 200),
                "cpp-httplib got a wrong answer");
    }
}

void EasyPeer::run(Method method, const Requests& requests, std::size_t first, std::size_t step) {
    request_.setMethod(method);
    for (std::size_t i = first; i < requests.size(); i += step) {
        request_.setTarget(requests, i);
        require(curl_easy_perform(request_.easy()) == CURLE_OK && request_.isAnsweredRightly(),
                "libcurl's easy interface got a wrong answer");
    }
}

ThreadsPeer::ThreadsPeer(const Address& server, std::size_t connections) {
    for (std::size_t i = 0; i < connections; ++i) {
        peers_.push_back(std::make_unique<EasyPeer>(server));
    }
}

void ThreadsPeer::run(Method method, const Requests& requests) {
    std::vector<std::future<void>> threads;
    for (std::size_t i = 0; i < peers_.size(); ++i) {
        threads.push_back(std::async(
            std::launch::async, [&, i] { peers_[i]->run(method, requests, i, peers_.size()); }));
    }
    for (std::future<void>& thread : threads) {
        thread.get();
    }
}

}  // namespace orvx::benchmarks
