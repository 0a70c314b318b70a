// Turns a request of the protocol into changes of the store and a response. Uses the types of HTTP
// messages, but no sockets and no clock.
// Entered by whichever thread owns the store, one at a time: the server's own, or a test's.
// There is no lock and no state.

#include "RequestHandler.h"

#include <algorithm>
#include <boost/beast/http/verb.hpp>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "FileError.h"

namespace orvx::registry {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

// Descriptions are flat. Writing JSON recurses, so what is stored must not nest without limit.
constexpr int kMaxDepth = 64;

json parseObject(const std::string& text) {
    const auto limitDepth = [](int depth, json::parse_event_t event, const json&) {
        const bool opens =
            event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
        if (opens && depth == kMaxDepth) {
            throw std::invalid_argument("the body nests too deeply");
        }
        return true;
    };
    json value = json::parse(text, limitDepth, false);
    // The parser takes a NUL for the end of the text.
    if (value.is_discarded() || text.find('\0') != std::string::npos) {
        throw std::invalid_argument("the body is not valid JSON in UTF-8");
    }
    if (!value.is_object()) {
        throw std::invalid_argument("the body is not a JSON object");
    }
    return value;
}

Response jsonResponse(http::status status, std::string text) {
    Response response(status, 11);
    response.set(http::field::content_type, "application/json");
    response.body() = std::move(text);
    response.prepare_payload();
    return response;
}

Response noSuchEntry() {
    return failure(http::status::not_found, "there is no such entry");
}

std::string uuidOf(const Request& request) {
    const auto target = request.target();
    return target.starts_with('/') ? std::string(target.substr(1)) : std::string();
}

bool isList(const Request& request) {
    return request.target() == "/" || request.target().starts_with("/?");
}

ListQuery queryOf(const EntryStore& store, const Request& request) {
    const auto target = request.target();
    return parseListQuery({target.data() + std::min<std::size_t>(2, target.size()),
                           target.size() - std::min<std::size_t>(2, target.size())},
                          store.instance());
}

Response put(EntryStore& store, const Request& request, const Caller& caller,
             AnswerExtras* extras) {
    try {
        const json service = parseObject(request.body());
        const auto [entry, created, movedFrom] =
            store.put(std::string(request.target()), service, caller.owner);
        if (extras != nullptr && !movedFrom.empty()) {
            extras->remark = "moved from " + movedFrom + " to " + entry.address;
        }
        Response response =
            jsonResponse(created ? http::status::created : http::status::ok, textOf(entry));
        response.set(http::field::location, "/" + entry.uuid);
        return response;
    } catch (const std::invalid_argument& error) {
        return failure(http::status::bad_request, error.what());
    }
}

Response get(const EntryStore& store, const Request& request, AnswerExtras* extras) {
    if (isList(request)) {
        try {
            return write(store, EntryWriter(queryOf(store, request)), extras);
        } catch (const UnknownPlace& error) {
            return failure(http::status::gone, error.what());
        } catch (const std::invalid_argument& error) {
            return failure(http::status::bad_request, error.what());
        }
    }
    const Entry* entry = store.find(uuidOf(request));
    return entry ? write(store, EntryWriter(*entry), extras) : noSuchEntry();
}

// Without a Content-Length: to know it, the body would have to be written.
Response head(EntryStore& store, const Request& request, const Caller& caller) {
    const std::string uuid = uuidOf(request);
    const bool isThere =
        isList(request) || (caller.mayRenew ? store.check(uuid) : store.find(uuid) != nullptr);
    Response response(isThere ? http::status::ok : http::status::not_found, 11);
    response.set(http::field::content_type, "application/json");
    return response;
}

Response remove(EntryStore& store, const Request& request) {
    const auto entry = store.remove(uuidOf(request));
    return entry ? jsonResponse(http::status::ok, textOf(*entry)) : noSuchEntry();
}

Response dispatch(EntryStore& store, const Request& request, const Caller& caller,
                  AnswerExtras* extras) {
    switch (request.method()) {
        case http::verb::put:
            return put(store, request, caller, extras);
        case http::verb::get:
            return get(store, request, extras);
        case http::verb::head:
            return head(store, request, caller);
        case http::verb::delete_:
            return remove(store, request);
        default:
            return methodNotAllowed();
    }
}

Response tryToDispatch(EntryStore& store, const Request& request, const Caller& caller,
                       AnswerExtras* extras) {
    try {
        return dispatch(store, request, caller, extras);
    } catch (const StoreFull& full) {
        return failure(http::status::insufficient_storage, full.what());
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
        return failure(http::status::internal_server_error, error.what());
    }
}

}  // namespace

Response answer(EntryStore& store, const Request& request, const Caller& caller,
                AnswerExtras* extras) {
    Response response = tryToDispatch(store, request, caller, extras);
    response.version(request.version());
    response.keep_alive(request.keep_alive());
    return response;
}

Response write(const EntryStore& store, EntryWriter writer, AnswerExtras* extras) {
    std::string text = *writer.next(store);
    while (extras == nullptr && !writer.isDone()) {
        text += *writer.next(store);
    }
    Response response = jsonResponse(http::status::ok, std::move(text));
    if (!writer.isDone()) {
        response.erase(http::field::content_length);
        extras->rest = writer;
    }
    return response;
}

Response makeResponse(http::status status, const json& body) {
    return jsonResponse(status, body.dump(-1, ' ', false, json::error_handler_t::replace));
}

Response failure(http::status status, std::string_view why) {
    return makeResponse(status, {{"error", why}});
}

Response methodNotAllowed() {
    Response response =
        failure(http::status::method_not_allowed, "the methods are GET, HEAD, PUT and DELETE");
    response.set(http::field::allow, "GET, HEAD, PUT, DELETE");
    return response;
}

}  // namespace orvx::registry
