// The test's access to a request, and its answer.
// Entered by the test's thread only; there is no lock.

#include "Network.h"

namespace orvx::simulation {

using communication::HttpResponse;

Request::Request(std::shared_ptr<Data> data) : data_(std::move(data)) {}

const std::string& Request::method() const {
    return data_->method;
}
const std::string& Request::path() const {
    return data_->path;
}
const std::string& Request::contentType() const {
    return data_->contentType;
}
const std::string& Request::accept() const {
    return data_->accept;
}
const std::string& Request::body() const {
    return data_->body;
}
const std::string& Request::host() const {
    return data_->host;
}
std::uint16_t Request::port() const {
    return data_->port;
}

bool Request::isOutstanding() const {
    return data_->session != nullptr;
}

void Request::answer(int statusCode, const std::string& headerLines, const std::string& body) {
    answer(HttpResponse(static_cast<HttpResponse::StatusCode>(statusCode), headerLines, body));
}

void Request::answer(const HttpResponse& response) {
    if (const auto session = data_->session) {
        session->answer(*data_, response);
    }
}

}  // namespace orvx::simulation
