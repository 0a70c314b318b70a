// Any requests to the registry, made from parts or read from raw bytes, compared with the simplest
// possible registry: a list. If faults are set, which the list does not support, the answer must be
// well-formed, and the list is built again. One thread; there is no lock.

#include "Dispatcher.h"
#include "Input.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <nlohmann/json.hpp>
#include <vector>

namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using orvx::fuzz::Input;
using orvx::fuzz::isUtf8;
using orvx::fuzz::require;
using orvx::fuzz::requireSame;
using orvx::registry::Dispatcher;
using orvx::registry::Entry;
using orvx::registry::EntryStore;
using orvx::registry::Reaction;
using orvx::registry::Request;
using orvx::registry::Response;
using orvx::registry::Watch;

struct KnownEntry {
    std::string uuid;
    std::string path;
    json service;
    int checks = 0;
};

/// The deepest nesting of a text in JSON.
int depthOf(const std::string& text) {
    int depth = 0;
    int deepest = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '"') {
            quoted = !quoted;
        } else if (quoted && text[i] == '\\') {
            ++i;
        } else if (!quoted && (text[i] == '{' || text[i] == '[')) {
            deepest = std::max(deepest, ++depth);
        } else if (!quoted && (text[i] == '}' || text[i] == ']')) {
            --depth;
        }
    }
    return deepest;
}

bool isAcceptable(const std::string& body) {
    return json::accept(body) && json::parse(body).is_object() && depthOf(body) <= 64 &&
           body.find('\0') == std::string::npos;
}

/// Sends requests to the registry, and keeps the list of its expected content.
class Registry {
  public:
    void ask(const Request& request) {
        isKnown_ = !isForTool(request) && (isKnown_ || !hasFaults());
        Reaction reaction = react(request);
        if (!reaction.response) {
            require(!isKnown_, "a connection is reset by a fault only");
            return adopt();
        }
        if (reaction.watch) {
            return requireListed(*reaction.watch);
        }
        complete(reaction);
        requireWellFormed(request, *reaction.response);
        if (!isKnown_) {
            return adopt();
        }
        requireSame(reaction.response->result(), expected(request, *reaction.response),
                    "the status");
        requireSame(dispatcher_.store().entries().size(), known_.size(), "the number of entries");
    }

    /// The target of an entry, or of none.
    std::string location(unsigned which) const {
        return which < known_.size() ? "/" + known_[which].uuid : "/none";
    }

    void requireAllListed() {
        react({http::verb::delete_, "/-/faults", 11});
        const json listed = json::parse(get("/").body());
        std::size_t at = 0;
        for (const json& entry : listed.at("entries")) {
            requireSame(entry.at("uuid"), known_.at(at).uuid, "the uuid in the list");
            requireSame(entry.at("service"), known_.at(at).service, "the service in the list");
            requireSame(entry.at("checks"), known_.at(at).checks, "the checks in the list");
            ++at;
        }
        requireSame(at, known_.size(), "the length of the list");
    }

  private:
    using Position = std::vector<KnownEntry>::iterator;

    Reaction react(const Request& request) {
        Reaction reaction;
        dispatcher_.react(request, {}, [&reaction](Reaction made) { reaction = std::move(made); });
        return reaction;
    }

    /// A request whose answer does not depend on the entries.
    static bool isForTool(const Request& request) {
        return request.target().starts_with("/-/") ||
               request[http::field::accept].find("text/html") != boost::string_view::npos;
    }

    /// A new reader receives every entry.
    void requireListed(Watch& watch) {
        std::size_t count = 0;
        for (auto piece = dispatcher_.news(watch); !piece->empty();
             piece = dispatcher_.news(watch)) {
            require(piece->size() < Watch::kPiece + Watch::kLongestEvent, "a short piece");
            for (auto at = piece->find("event: put\n"); at != std::string::npos;
                 at = piece->find("event: put\n", at + 1)) {
                ++count;
            }
        }
        requireSame(count, dispatcher_.store().entries().size(), "the entries of a new reader");
        adopt();
    }

    static void requireWellFormed(const Request& request, const Response& response) {
        requireSame(response.keep_alive(), request.keep_alive(), "keeping alive");
        if (!isForTool(request)) {
            requireSame(response[http::field::content_type], "application/json",
                        "the content type");
        }
        if (request.method() == http::verb::head) {
            require(response.body().empty(), "an answer to HEAD has no body");
            return;
        }
        require(isForTool(request) || json::accept(response.body()), "the body is JSON");
        requireSame(response[http::field::content_length], std::to_string(response.body().size()),
                    "the length");
    }

    /// An incomplete list.
    void complete(Reaction& reaction) {
        while (reaction.rest && !reaction.rest->isDone()) {
            reaction.response->body() += reaction.rest->next(dispatcher_.store()).value();
        }
        if (reaction.rest) {
            reaction.response->prepare_payload();
        }
    }

    Response get(const char* target) {
        Reaction reaction = react({http::verb::get, target, 11});
        complete(reaction);
        return reaction.response.value();
    }

    bool hasFaults() { return get("/-/faults").body() != R"({"faults":[]})"; }

    void adopt() {
        known_.clear();
        for (const Entry& entry : dispatcher_.store().entries()) {
            known_.push_back({entry.uuid, entry.path, json::parse(entry.service),
                              static_cast<int>(entry.checks)});
        }
    }

    Position byTarget(const Request& request) {
        return std::find_if(known_.begin(), known_.end(), [&](const KnownEntry& entry) {
            return request.target() == "/" + entry.uuid;
        });
    }

    http::status expected(const Request& request, const Response& response) {
        switch (request.method()) {
            case http::verb::put:
                return put(request, response);
            case http::verb::get:
            case http::verb::head:
                return look(request, response);
            case http::verb::delete_:
                return remove(request);
            default:
                return http::status::method_not_allowed;
        }
    }

    http::status put(const Request& request, const Response& response) {
        if (!isAcceptable(request.body())) {
            return http::status::bad_request;
        }
        auto entry = std::find_if(known_.begin(), known_.end(), [&](const KnownEntry& known) {
            return request.target() == known.path;
        });
        const bool isNew = entry == known_.end();
        if (isNew) {
            const std::string uuid = json::parse(response.body()).at("uuid");
            entry = known_.insert(entry, {uuid, std::string(request.target()), {}});
        }
        entry->service = json::parse(request.body());
        requireSame(response[http::field::location], "/" + entry->uuid, "the location");
        return isNew ? http::status::created : http::status::ok;
    }

    http::status look(const Request& request, const Response& response) {
        if (request.target().starts_with("/?")) {
            return response.result();  // the list does not support queries
        }
        if (request.target() == "/") {
            return http::status::ok;
        }
        const auto entry = byTarget(request);
        if (entry == known_.end()) {
            return http::status::not_found;
        }
        entry->checks += request.method() == http::verb::head ? 1 : 0;
        return http::status::ok;
    }

    http::status remove(const Request& request) {
        const auto entry = byTarget(request);
        if (entry == known_.end()) {
            return http::status::not_found;
        }
        known_.erase(entry);
        return http::status::ok;
    }

    Dispatcher dispatcher_{{{}, 100'000, "", [] { return EntryStore::Time(); }}, {true}};
    std::vector<KnownEntry> known_;
    bool isKnown_ = true;  // whether the list determines the answer
};

std::string targetFrom(Input& input, const Registry& registry) {
    switch (input.below(4)) {
        case 0:
            return registry.location(input.below(8));
        case 1:
            return input.text();
        default:
            return std::string("/") + static_cast<char>('a' + input.below(6));
    }
}

std::string bodyFrom(Input& input) {
    switch (input.below(4)) {
        case 0:
            return input.text();
        case 1: {
            const std::size_t depth = input.below(80);
            return R"({"a":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
        }
        default:
            return json{{"port", input.byte()}}.dump();
    }
}

void askInParts(Input& input, Registry& registry) {
    static constexpr http::verb kMethods[] = {http::verb::put,     http::verb::put,
                                              http::verb::get,     http::verb::head,
                                              http::verb::delete_, http::verb::post};
    const unsigned method = input.below(12);
    Request request(kMethods[method % 6], targetFrom(input, registry), 11);
    request.keep_alive(method < 6);
    if (request.method() == http::verb::put) {
        request.body() = bodyFrom(input);
    }
    registry.ask(request);
}

void askInBytes(Input& input, Registry& registry) {
    const std::string bytes = input.rest();
    std::string_view rest = bytes;
    boost::system::error_code error;
    while (!rest.empty() && !error) {
        http::request_parser<http::string_body> parser;
        parser.eager(true);
        parser.header_limit(8'192);
        parser.body_limit(1'024);
        rest.remove_prefix(parser.put(boost::asio::buffer(rest.data(), rest.size()), error));
        if (parser.is_done()) {
            registry.ask(parser.get());
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    Registry registry;
    for (int left = 100; left > 0 && !input.isEmpty(); --left) {
        if (input.below(8) == 7) {
            askInBytes(input, registry);
        } else {
            askInParts(input, registry);
        }
    }
    registry.requireAllListed();
    return 0;
}
