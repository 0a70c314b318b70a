#pragma once

#include <orvx/communication/HttpResponse.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace orvx::communication {

/// Receives the outcome of a request.
using ResponseHandler = std::function<void(HttpResponse)>;

/// Requests to one endpoint.
///
/// Thread-safety: every operation may be called from any thread, several at once, and with locks of
/// the caller's held: none waits for the network, and none calls a handler before it returns.
///
/// Handlers: each is called exactly once, on the communication library's I/O thread, with an answer
/// (status Ok) or with what went wrong; what it throws is dropped. Only requests that are
/// outstanding when the communication context is de-initialised, or sent while it is not
/// initialised, end without a call: their handlers are destroyed. A handler is destroyed only when
/// nothing of its request is in use any more, so it can own the content.
///
/// Errors: every failure of a request goes to its handler. An operation throws std::bad_alloc only,
/// and then the request was not made.
///
/// Paths and uris are relative to the endpoint. One that does not begin with "/" gets one; bytes
/// that may not stand in a request line are percent-encoded; the rest goes as given.
///
/// The order of the virtual operations is part of the binary interface.
class IClientHttpSession {
  public:
    virtual ~IClientHttpSession();

    /// PUT. The content is not copied: it must live until the handler is destroyed.
    virtual void sendPutRequest(std::string path, std::string contentType, std::string accept,
                                const char* content, std::uint64_t length,
                                ResponseHandler handler) = 0;

    /// HEAD. Waiting HEADs go before other waiting requests.
    virtual void sendHeadRequest(std::string uri, ResponseHandler handler) = 0;

    /// DELETE, without a body.
    virtual void sendDeleteRequest(std::string uri, std::string contentType,
                                   ResponseHandler handler) = 0;

    /// Gives up the HEAD that is outstanding longest, if there is one: its handler is called with
    /// Abandoned, unless its answer was on its way already. Other requests are never touched.
    virtual void abandon() = 0;

    /// HEAD, which ends after that time at the latest: its handler is called with TimedOut then,
    /// and it occupies no connection any more. All HEADs of a session are to be sent with the same
    /// time, or all without. A session that cannot do so sends it without a bound of its own.
    virtual void sendHeadRequestWithin(std::chrono::milliseconds /*timeout*/, std::string uri,
                                       ResponseHandler handler) {
        sendHeadRequest(std::move(uri), std::move(handler));
    }

    /// PUT of JSON; the content as in sendPutRequest().
    void sendPutRequestJson(std::string path, const char* content, std::uint64_t length,
                            ResponseHandler handler) {
        sendPutRequest(std::move(path), "application/json", "application/json", content, length,
                       std::move(handler));
    }
};

}  // namespace orvx::communication
