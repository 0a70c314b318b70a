// Expires entries, then passes a request to its handler. Delays, resets and statuses affect only
// the requests of the protocol. They do not affect the page, the stream of changes, the health and
// readiness, the metrics, the targets and the control of the faults.
// Runs on the server's thread, or a test's thread.
// There is no lock.

#include "Dispatcher.h"

#include <algorithm>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "FileContent.h"
#include "Page.h"

namespace orvx::registry {

namespace http = boost::beast::http;

namespace {

/// Whether the request is a GET or HEAD of the target. Ignores the query if `mayHaveQuery`.
bool asksFor(const char* target, const Request& request, bool mayHaveQuery = false) {
    const auto asked = request.target();
    return (mayHaveQuery ? asked.substr(0, asked.find('?')) : asked) == target &&
           (request.method() == http::verb::get || request.method() == http::verb::head);
}

/// The query of the target, without its `?`.
std::string_view queryIn(const Request& request) {
    const auto target = request.target();
    const auto end = std::min(target.find('?'), target.size() - 1) + 1;
    return {target.data() + end, target.size() - end};
}

}  // namespace

Dispatcher::Dispatcher(StoreOptions store, const DispatcherOptions& options)
    : store_([&] {
          if (!options.audit.empty()) {
              audit_.emplace(options.audit);
              store.listener = [this](Change change, const Entry& entry) {
                  audit(change, entry, nullptr);
              };
          }
          return std::move(store);
      }()),
      guard_(options.requestsPerSecond, options.admin),
      admin_(options.admin) {}

void Dispatcher::audit(std::string_view what, const Caller* caller) {
    if (audit_ && !audit_->write(what, caller)) {
        metrics_.countLostLine(LostIn::Audit);
    }
}

void Dispatcher::audit(Change change, const Entry& entry, const Caller* caller) {
    if (audit_ && !audit_->write(change, entry, caller)) {
        metrics_.countLostLine(LostIn::Audit);
    }
}

std::optional<Response> Dispatcher::refuse(const Request& header, const Peer& peer,
                                           Caller& caller) {
    auto refusal = guard_.refuse(header, peer, store_.now(), caller);
    if (refusal) {
        metrics_.countRequest(header.method(), refusal->result_int(), {});
        refusal->version(header.version());
        if (header.method() == http::verb::head) {
            dropBody(*refusal);
        }
    }
    return refusal;
}

void Dispatcher::react(const Request& request, const Caller& caller,
                       std::function<void(Reaction)> done) {
    const Handler finish = [this, done = std::move(done), method = request.method(),
                            version = request.version(), keepAlive = request.keep_alive(),
                            begin = std::chrono::steady_clock::now()](Reaction reaction) {
        metrics_.countRequest(method, reaction.response ? reaction.response->result_int() : 0,
                              std::chrono::steady_clock::now() - begin);
        if (!reaction.remark.empty()) {
            metrics_.countMove();
        }
        if (reaction.response) {
            Response& response = *reaction.response;
            response.version(version);
            response.keep_alive(keepAlive && !reaction.watch);
            if (method == http::verb::head) {
                dropBody(response);
            }
        }
        done(std::move(reaction));
    };
    try {
        decide(request, caller, finish);
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
        finish({failure(http::status::internal_server_error, error.what())});
    }
}

void Dispatcher::decide(const Request& request, const Caller& caller, const Handler& done) {
    backend_->expire();
    if (auto asset = pageAsset(request)) {
        return done({std::move(asset)});
    }
    if (admin_ && request.target() == "/-/faults") {
        Response response = control(request, caller);
        forgetWhatIsDue();
        return done({std::move(response)});
    }
    if (asksFor("/-/health", request)) {
        return done({makeResponse(http::status::ok, {{"live", true}})});
    }
    if (asksFor("/-/ready", request)) {
        const bool isReady = backend_->isCurrent();
        return done({makeResponse(isReady ? http::status::ok : http::status::service_unavailable,
                                  {{"ready", isReady}})});
    }
    if (asksFor("/-/metrics", request)) {
        return done({metrics()});
    }
    const bool isWatch = asksFor("/-/watch", request, true);
    if (isWatch || asksFor("/-/prometheus", request, true)) {
        if (!backend_->isLoaded()) {
            return done({unavailable()});
        }
        return done(isWatch ? beginWatch(request) : targetGroups(request));
    }
    askForEntries(request, caller, done);
}

void Dispatcher::askForEntries(const Request& request, const Caller& caller, Handler done) {
    const FaultEffect effect = faults_.apply(request.method(), store_);
    if (effect.reset) {
        return done({std::nullopt, effect.delay});
    }
    if (effect.status != 0) {
        return done(
            {failure(static_cast<http::status>(effect.status), "a fault on demand"), effect.delay});
    }
    answer(*backend_, request, caller,
           [this, caller, delay = effect.delay, done = std::move(done)](Answer answer) {
               if (answer.change) {
                   audit(answer.change->first, answer.change->second, &caller);
               }
               done({std::move(answer.response),
                     delay,
                     std::move(answer.remark),
                     {},
                     std::move(answer.rest)});
           });
}

Reaction Dispatcher::beginWatch(const Request& request) {
    forgetWhatIsDue();
    bool hasChecks = true;
    try {
        hasChecks = wantsChecks(queryIn(request));
    } catch (const std::invalid_argument& error) {
        return {failure(http::status::bad_request, error.what())};
    }
    Reaction reaction{Response(http::status::ok, 11)};
    reaction.response->set(http::field::content_type, "text/event-stream");
    reaction.response->set(http::field::cache_control, "no-store");
    reaction.response->set("X-Content-Type-Options", "nosniff");
    if (request.method() == http::verb::get) {
        const auto lastId = request["Last-Event-ID"];
        reaction.watch.emplace(store_, std::string_view(lastId.data(), lastId.size()), hasChecks);
    }
    return reaction;
}

Response Dispatcher::metrics() {
    forgetWhatIsDue();
    Response response(http::status::ok, 11);
    response.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
    response.body() = metrics_.text(store_, faults_.count(store_.now())) + backend_->metrics();
    response.prepare_payload();
    return response;
}

Reaction Dispatcher::targetGroups(const Request& request) {
    forgetWhatIsDue();
    try {
        ListQuery query = parseListQuery(queryIn(request), store_.places());
        if (query.limit || query.after != 0) {
            throw std::invalid_argument("the query takes name, category and version");
        }
        Answer answer =
            write(store_, EntryWriter(std::move(query), EntryWriter::Format::TargetGroups));
        const bool hasBody = request.method() == http::verb::get;
        return {std::move(answer.response), {}, {}, {}, hasBody ? answer.rest : std::nullopt};
    } catch (const UnknownPlace& error) {
        return {failure(http::status::bad_request, error.what())};
    } catch (const std::invalid_argument& error) {
        return {failure(http::status::bad_request, error.what())};
    }
}

RecentPieces::Piece Dispatcher::news(Watch& watch) {
    try {
        backend_->expire();
        forgetWhatIsDue();
    } catch (const FileError& error) {
        std::cerr << "orvx-registry: " << error.what() << std::endl;
    }
    return pieces_.next(watch, store_, faults_.count(store_.now()));
}

void Dispatcher::forgetWhatIsDue() {
    faults_.apply(std::nullopt, store_);
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
