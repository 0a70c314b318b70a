// Expires entries, then passes a request to its handler. The page, the stream of changes, the
// metrics, the targets and the control of the faults are not affected by faults; all other requests
// belong to the protocol.
// Entered by the thread that runs the server, or a test's, one at a time.
// There is no lock.

#include "Dispatcher.h"

#include <algorithm>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "FileError.h"
#include "Page.h"

namespace orvx::registry {

namespace http = boost::beast::http;

namespace {

/// With a query or without, if `mayHaveQuery`.
bool asksFor(const char* target, const Request& request, bool mayHaveQuery = false) {
    const auto asked = request.target();
    return (mayHaveQuery ? asked.substr(0, asked.find('?')) : asked) == target &&
           (request.method() == http::verb::get || request.method() == http::verb::head);
}

}  // namespace

Dispatcher::Dispatcher(StoreOptions store, const DispatcherOptions& options)
    : store_([&] {
          if (!options.audit.empty()) {
              audit_.emplace(options.audit);
              store.listener = [this](Change change, const Entry& entry) {
                  auditChange(change, entry);
              };
          }
          return std::move(store);
      }()),
      guard_(options.requestsPerSecond, options.admin),
      admin_(options.admin) {}

// What expires or is forgotten when a request comes is not the caller's doing.
void Dispatcher::auditChange(Change change, const Entry& entry) {
    const bool isTheCallers = change != Change::Expired && change != Change::Forgotten;
    audit_->write(change, entry, isTheCallers ? caller_ : nullptr);
}

void Dispatcher::audit(std::string_view what, const Caller* caller) {
    if (audit_) {
        audit_->write(what, caller);
    }
}

std::optional<Response> Dispatcher::refuse(const Request& header, const Peer& peer,
                                           Caller& caller) {
    auto refusal = guard_.refuse(header, peer, store_, caller);
    if (refusal) {
        metrics_.countRequest(header.method(), refusal->result_int());
        refusal->version(header.version());
        if (header.method() == http::verb::head) {
            refusal->body().clear();
            refusal->erase(http::field::content_length);
        }
    }
    return refusal;
}

Reaction Dispatcher::react(const Request& request, const Caller& caller) {
    Reaction reaction;
    caller_ = &caller;
    try {
        reaction = decide(request, caller);
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
        reaction.response = failure(http::status::internal_server_error, error.what());
    }
    caller_ = nullptr;
    metrics_.countRequest(request.method(),
                          reaction.response ? reaction.response->result_int() : 0);
    if (!reaction.remark.empty()) {
        metrics_.countMove();
    }
    if (reaction.response) {
        Response& response = *reaction.response;
        response.version(request.version());
        response.keep_alive(request.keep_alive() && !reaction.watch);
        if (request.method() == http::verb::head) {
            response.body().clear();
            response.erase(http::field::content_length);
        }
    }
    return reaction;
}

Reaction Dispatcher::decide(const Request& request, const Caller& caller) {
    store_.expire();
    if (auto asset = pageAsset(request)) {
        return {std::move(asset)};
    }
    if (admin_ && request.target() == "/-/faults") {
        Response response = control(request, caller);
        forgetWhatIsDue();
        return {std::move(response)};
    }
    if (asksFor("/-/watch", request)) {
        return beginWatch(request);
    }
    if (asksFor("/-/metrics", request)) {
        return {metrics()};
    }
    if (asksFor("/-/prometheus", request, true)) {
        return targetGroups(request);
    }
    const Fate fate = faults_.meet(request.method(), store_);
    Reaction reaction;
    reaction.delay = fate.delay;
    if (fate.reset) {
        return reaction;
    }
    if (fate.status != 0) {
        reaction.response = failure(static_cast<http::status>(fate.status), "a fault on demand");
    } else {
        AnswerExtras extras;
        reaction.response = answer(store_, request, caller, &extras);
        reaction.remark = std::move(extras.remark);
        reaction.rest = extras.rest;
    }
    return reaction;
}

Reaction Dispatcher::beginWatch(const Request& request) {
    forgetWhatIsDue();
    Reaction reaction{Response(http::status::ok, 11)};
    reaction.response->set(http::field::content_type, "text/event-stream");
    reaction.response->set(http::field::cache_control, "no-store");
    reaction.response->set("X-Content-Type-Options", "nosniff");
    if (request.method() == http::verb::get) {
        const auto lastId = request["Last-Event-ID"];
        reaction.watch.emplace(store_, std::string_view(lastId.data(), lastId.size()));
    }
    return reaction;
}

Response Dispatcher::metrics() {
    forgetWhatIsDue();
    Response response(http::status::ok, 11);
    response.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
    response.body() = metrics_.text(store_, faults_.count(store_.now()));
    response.prepare_payload();
    return response;
}

Reaction Dispatcher::targetGroups(const Request& request) {
    forgetWhatIsDue();
    const auto target = request.target();
    const auto end = std::min(target.find('?'), target.size() - 1) + 1;
    try {
        ListQuery query =
            parseListQuery({target.data() + end, target.size() - end}, store_.instance());
        if (query.limit || query.after != 0) {
            throw std::invalid_argument("the query takes name, category and version");
        }
        AnswerExtras extras;
        Response response = write(
            store_, EntryWriter(std::move(query), EntryWriter::Format::TargetGroups), &extras);
        const bool hasBody = request.method() == http::verb::get;
        return {std::move(response), {}, {}, {}, hasBody ? extras.rest : std::nullopt};
    } catch (const UnknownPlace& error) {
        return {failure(http::status::bad_request, error.what())};
    } catch (const std::invalid_argument& error) {
        return {failure(http::status::bad_request, error.what())};
    }
}

std::string Dispatcher::news(Watch& watch) {
    try {
        store_.expire();
        forgetWhatIsDue();
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
    }
    return watch.next(store_, faults_.count(store_.now()));
}

void Dispatcher::forgetWhatIsDue() {
    faults_.meet(std::nullopt, store_);
}

Response Dispatcher::control(const Request& request, const Caller& caller) {
    switch (request.method()) {
        case http::verb::put:
            try {
                setFaults(request.body());
            } catch (const std::invalid_argument& error) {
                return failure(http::status::bad_request, error.what());
            }
            audit("faults set", &caller);
            break;
        case http::verb::delete_:
            faults_.set({});
            audit("faults dropped", &caller);
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
