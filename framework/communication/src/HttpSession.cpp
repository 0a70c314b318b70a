// A session makes requests and passes them to the I/O thread, including requests that it refuses.
// Entered by any thread; its members are constant, there is no lock.

#include "HttpSession.h"

#include <orvx/communication/RequestTarget.h>

#include <algorithm>
#include <limits>
#include <new>

namespace orvx::communication {

namespace {

bool canBeSent(const Request& request) {
    constexpr auto kLongest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return !hasControlCharacter(request.contentType) && !hasControlCharacter(request.accept) &&
           request.length <= kLongest && (request.content != nullptr || request.length == 0);
}

}  // namespace

HttpSession::HttpSession(std::shared_ptr<RequestInbox> inbox,
                         std::shared_ptr<const EndpointSettings> settings,
                         CommunicationStatus refusal)
    : inbox_(std::move(inbox)), settings_(std::move(settings)), refusal_(refusal) {}

HttpSession::~HttpSession() {
    try {
        inbox_->push(make(Request::Kind::Retire));
    } catch (const std::bad_alloc&) {
        // The connections stay open until the engine stops.
    }
}

void HttpSession::sendPutRequest(std::string path, std::string contentType, std::string accept,
                                 const char* content, std::uint64_t length,
                                 ResponseHandler handler) {
    auto request = make(Request::Kind::Put);
    request->contentType = std::move(contentType);
    request->accept = std::move(accept);
    request->content = content;
    request->length = length;
    send(std::move(request), std::move(path), std::move(handler));
}

void HttpSession::sendHeadRequest(std::string uri, ResponseHandler handler) {
    send(make(Request::Kind::Head), std::move(uri), std::move(handler));
}

void HttpSession::sendHeadRequestWithin(std::chrono::milliseconds timeout, std::string uri,
                                        ResponseHandler handler) {
    send(make(Request::Kind::Head), std::move(uri), std::move(handler), timeout);
}

void HttpSession::sendDeleteRequest(std::string uri, std::string contentType,
                                    ResponseHandler handler) {
    auto request = make(Request::Kind::Delete);
    request->contentType = std::move(contentType);
    send(std::move(request), std::move(uri), std::move(handler));
}

void HttpSession::abandon() {
    inbox_->push(make(Request::Kind::Abandon));
}

std::unique_ptr<Request> HttpSession::make(Request::Kind kind) const {
    auto request = std::make_unique<Request>();
    request->kind = kind;
    request->settings = settings_;
    request->status = refusal_;
    return request;
}

void HttpSession::send(std::unique_ptr<Request> request, std::string path, ResponseHandler handler,
                       std::chrono::milliseconds timeout) {
    request->target = requestTarget(std::move(path));
    if (request->status == CommunicationStatus::Ok && !canBeSent(*request)) {
        request->status = CommunicationStatus::InvalidRequest;
    }
    request->handler = std::move(handler);
    request->submitted = Clock::now();
    request->deadline =
        request->submitted + std::min({settings_->config.requestTimeout, timeout, kLongestTimeout});
    inbox_->push(std::move(request));
}

}  // namespace orvx::communication
