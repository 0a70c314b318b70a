// The way of a request: what is due happens to the entries first, then the page and the control of
// the faults are served, which no fault meets; the rest is the protocol.
// Entered by the thread that runs the server, or a test's, one at a time.
// There is no lock.

#include "Dispatcher.h"

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "FileError.h"
#include "Page.h"

namespace orvx::registry {

namespace http = boost::beast::http;

Reaction Dispatcher::react(const Request& request) {
    Reaction reaction;
    try {
        reaction = decide(request);
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
        reaction.response = failure(http::status::internal_server_error, error.what());
    }
    if (reaction.response) {
        Response& response = *reaction.response;
        response.version(request.version());
        response.keep_alive(request.keep_alive());
        if (request.method() == http::verb::head) {
            response.body().clear();
            response.erase(http::field::content_length);
        }
    }
    return reaction;
}

Reaction Dispatcher::decide(const Request& request) {
    store_.expire();
    if (auto asset = pageAsset(request)) {
        return {std::move(asset)};
    }
    const bool isControl = admin_ && request.target() == "/-/faults";
    const bool isPage = asksForPageEntries(request);
    Reaction reaction;
    if (isControl) {
        reaction.response = control(request);
    }
    const Fate fate =
        faults_.meet(isControl || isPage ? std::nullopt : std::optional(request.method()), store_);
    if (isPage) {
        reaction.response = pageEntries(store_, faults_.count(store_.now()));
    }
    if (isControl || isPage) {
        return reaction;
    }
    reaction.delay = fate.delay;
    if (fate.reset) {
        return reaction;
    }
    if (fate.status != 0) {
        reaction.response = failure(static_cast<http::status>(fate.status), "a fault on demand");
    } else {
        reaction.response = answer(store_, request, &reaction.remark);
    }
    return reaction;
}

Response Dispatcher::control(const Request& request) {
    switch (request.method()) {
        case http::verb::put:
            try {
                setFaults(request.body());
            } catch (const std::invalid_argument& error) {
                return failure(http::status::bad_request, error.what());
            }
            break;
        case http::verb::delete_:
            faults_.set({});
            break;
        case http::verb::get:
        case http::verb::head:
            break;
        default:
            return methodNotAllowed();
    }
    return makeResponse(http::status::ok, faults_.list(store_.now()));
}

}  // namespace orvx::registry
