// Turns a request of the protocol into calls of the backend and a response. Uses the types of HTTP
// messages, but no sockets and no clock.
// Runs on the thread that owns the store: the server's, or a test's.
// There is no lock and no state.

#include "RequestHandler.h"

#include <algorithm>
#include <boost/beast/http/verb.hpp>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "FileContent.h"
#include "Json.h"

namespace orvx::registry {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

json parseObject(const std::string& text) {
    if (jsonDepthOf(text) > kMaxJsonDepth) {
        throw std::invalid_argument("the body nests too deeply");
    }
    json value = parseJson(text);
    if (value.is_discarded()) {
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
                          store.places());
}

using Handler = std::function<void(Answer)>;
using Presence = EntryBackend::Presence;

Answer answerToPut(const EntryBackend::PutResult& result) {
    const Entry& entry = result.entry;
    Answer answer{
        jsonResponse(result.created ? http::status::created : http::status::ok, textOf(entry))};
    answer.response.set(http::field::location, "/" + entry.uuid);
    if (!result.movedFrom.empty()) {
        answer.remark = "moved from " + result.movedFrom + " to " + entry.address;
    }
    answer.change = {result.created ? Change::Announced : Change::Replaced, entry};
    return answer;
}

void put(EntryBackend& backend, const Request& request, const Caller& caller, Handler done) {
    backend.put(std::string(request.target()), parseObject(request.body()), caller.owner(),
                [done = std::move(done)](const auto& result) {
                    done(result ? answerToPut(*result) : Answer{unavailable()});
                });
}

void get(const EntryBackend& backend, const Request& request, const Handler& done) {
    done(backend.isLoaded() ? write(backend.store(), EntryWriter(queryOf(backend.store(), request)))
                            : Answer{unavailable()});
}

/// The answer to a request for an entry that is absent or unknown.
Answer answerWithout(Presence presence) {
    return {presence == Presence::Absent ? noSuchEntry() : unavailable()};
}

void getOne(EntryBackend& backend, const Request& request, Handler done) {
    const EntryStore& store = backend.store();
    backend.find(uuidOf(request),
                 [&store, done = std::move(done)](Presence presence, const Entry* entry) {
                     if (entry == nullptr) {
                         return done(answerWithout(presence));
                     }
                     // An entry that is not in the store cannot be written in pieces.
                     done(store.find(entry->uuid) == entry
                              ? write(store, EntryWriter(*entry))
                              : Answer{jsonResponse(http::status::ok, textOf(*entry))});
                 });
}

// There is no Content-Length: it is known only after the body is written.
Answer answerToHead() {
    return {jsonResponse(http::status::ok, {})};
}

void head(EntryBackend& backend, const Request& request, const Caller& caller, Handler done) {
    backend.find(uuidOf(request),
                 [&backend, caller, done = std::move(done)](Presence presence, const Entry* entry) {
                     if (entry == nullptr) {
                         return done(answerWithout(presence));
                     }
                     if (caller.mayAnnounce(entry->path)) {
                         backend.check(entry->uuid);
                     } else if (!caller.mayRead()) {
                         return done({forbidden("check that")});
                     }
                     done(answerToHead());
                 });
}

void remove(EntryBackend& backend, const Request& request, const Caller& caller, Handler done) {
    backend.find(uuidOf(request),
                 [&backend, caller, done = std::move(done)](Presence presence, const Entry* entry) {
                     if (entry == nullptr) {
                         return done(answerWithout(presence));
                     }
                     if (!caller.mayAnnounce(entry->path)) {
                         return done({forbidden("withdraw that")});
                     }
                     backend.remove(*entry, [done, removed = *entry](Presence wasThere) {
                         if (wasThere != Presence::Present) {
                             return done(answerWithout(wasThere));
                         }
                         Answer answer{jsonResponse(http::status::ok, textOf(removed))};
                         answer.change = {Change::Withdrawn, removed};
                         done(std::move(answer));
                     });
                 });
}

void dispatch(EntryBackend& backend, const Request& request, const Caller& caller, Handler done) {
    switch (request.method()) {
        case http::verb::put:
            return put(backend, request, caller, std::move(done));
        case http::verb::get:
            return isList(request) ? get(backend, request, done)
                                   : getOne(backend, request, std::move(done));
        case http::verb::head:
            return isList(request)
                       ? done(backend.isLoaded() ? answerToHead() : Answer{unavailable()})
                       : head(backend, request, caller, std::move(done));
        case http::verb::delete_:
            return remove(backend, request, caller, std::move(done));
        default:
            return done({methodNotAllowed()});
    }
}

}  // namespace

void answer(EntryBackend& backend, const Request& request, const Caller& caller,
            std::function<void(Answer)> done) {
    const auto finish = [done = std::move(done), version = request.version(),
                         keepAlive = request.keep_alive(),
                         isHead = request.method() == http::verb::head](Answer answer) {
        if (isHead) {
            dropBody(answer.response);
        }
        answer.response.version(version);
        answer.response.keep_alive(keepAlive);
        done(std::move(answer));
    };
    try {
        dispatch(backend, request, caller, finish);
    } catch (const UnknownPlace& error) {
        finish({failure(http::status::gone, error.what())});
    } catch (const std::invalid_argument& error) {
        finish({failure(http::status::bad_request, error.what())});
    } catch (const StoreFull& full) {
        finish({failure(http::status::insufficient_storage, full.what())});
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
        finish({failure(http::status::internal_server_error, error.what())});
    }
}

Answer write(const EntryStore& store, EntryWriter writer) {
    Answer answer{jsonResponse(http::status::ok, *writer.next(store))};
    if (!writer.isDone()) {
        answer.response.erase(http::field::content_length);
        answer.rest = std::move(writer);
    }
    return answer;
}

Response makeResponse(http::status status, const json& body) {
    return jsonResponse(status, body.dump(-1, ' ', false, json::error_handler_t::replace));
}

Response failure(http::status status, std::string_view why) {
    return makeResponse(status, {{"error", why}});
}

void dropBody(Response& response) {
    response.body().clear();
    response.erase(http::field::content_length);
}

Response forbidden(std::string_view what) {
    return failure(http::status::forbidden, "the token may not " + std::string(what));
}

Response unavailable() {
    Response response =
        failure(http::status::service_unavailable, "the registry does not know at the moment");
    response.set(http::field::retry_after, "1");
    return response;
}

Response methodNotAllowed() {
    Response response =
        failure(http::status::method_not_allowed, "the methods are GET, HEAD, PUT and DELETE");
    response.set(http::field::allow, "GET, HEAD, PUT, DELETE");
    return response;
}

}  // namespace orvx::registry
