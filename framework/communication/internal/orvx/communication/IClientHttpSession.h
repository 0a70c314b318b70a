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

/// Sends requests to one endpoint.
///
/// Thread-safety: every operation may be called from any thread, several at once, and while the
/// caller holds locks: no operation waits for the network, and no handler is called before the
/// operation returns.
///
/// Handlers: each is called exactly once, on the communication library's I/O thread, with an answer
/// (status Ok) or a failure. Exceptions of a handler are dropped. A handler is destroyed without a
/// call only if its request is outstanding when the communication context is de-initialised, or is
/// sent while the context is not initialised. A handler is destroyed only when nothing of its
/// request is in use any more, so it may own the content.
///
/// Errors: every failure of a request is passed to its handler. An operation throws std::bad_alloc
/// only; the request was not made then.
///
/// Paths and uris are relative to the endpoint. A missing "/" at the beginning is added. Bytes that
/// are not allowed in a request line are percent-encoded; all others are sent unchanged.
///
/// The order of the virtual operations is part of the binary interface.
class IClientHttpSession {
  public:
    virtual ~IClientHttpSession();

    /// PUT. The content is not copied: it must live until the handler is destroyed.
    virtual void sendPutRequest(std::string path, std::string contentType, std::string accept,
                                const char* content, std::uint64_t length,
                                ResponseHandler handler) = 0;

    /// HEAD. Waiting HEADs are sent before other waiting requests.
    virtual void sendHeadRequest(std::string uri, ResponseHandler handler) = 0;

    /// DELETE, without a body.
    virtual void sendDeleteRequest(std::string uri, std::string contentType,
                                   ResponseHandler handler) = 0;

    /// Gives up the HEAD that has been outstanding longest, if there is one: its handler is called
    /// with Abandoned, unless its answer has arrived already. Other requests are not affected.
    virtual void abandon() = 0;

    /// HEAD with a time-out of its own. When the time-out passes, the handler is called with
    /// TimedOut, and the request occupies no connection any more. All HEADs of a session must be
    /// sent with the same time-out, or all without one. The default implementation ignores the
    /// time-out.
    virtual void sendHeadRequestWithin(std::chrono::milliseconds /*timeout*/, std::string uri,
                                       ResponseHandler handler) {
        sendHeadRequest(std::move(uri), std::move(handler));
    }

    /// PUT of JSON. The content is not copied: see sendPutRequest().
    void sendPutRequestJson(std::string path, const char* content, std::uint64_t length,
                            ResponseHandler handler) {
        sendPutRequest(std::move(path), "application/json", "application/json", content, length,
                       std::move(handler));
    }
};

}  // namespace orvx::communication
