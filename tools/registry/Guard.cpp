// Checks the rate of the address, the token, and the token's rights for the method and the target.
// Runs on the server's thread, or a test's thread.
// There is no lock.

#include "Guard.h"

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <iterator>

#include "Base64.h"
#include "PathScope.h"

namespace orvx::registry {

namespace http = boost::beast::http;
namespace beast = boost::beast;

namespace {

std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

/// The credentials that follow the name of the scheme; empty if it is another scheme.
std::string_view credentialsOf(std::string_view scheme, std::string_view header) {
    if (header.size() <= scheme.size() || header[scheme.size()] != ' ' ||
        !beast::iequals(beast::string_view(header.data(), scheme.size()),
                        beast::string_view(scheme.data(), scheme.size()))) {
        return {};
    }
    header.remove_prefix(scheme.size());
    header.remove_prefix(std::min(header.find_first_not_of(' '), header.size()));
    return header;
}

/// The secret in the value of an Authorization header: the token of the scheme Bearer, or the
/// password of the scheme Basic, which browsers can ask for.
std::string secretIn(std::string_view header) {
    if (const auto bearer = credentialsOf("Bearer", header); !bearer.empty()) {
        return std::string(bearer);
    }
    const auto pair = decode64(credentialsOf("Basic", header)).value_or("");
    const auto colon = pair.find(':');
    return colon == std::string::npos ? std::string() : pair.substr(colon + 1);
}

Response unauthorized() {
    Response response = failure(http::status::unauthorized, "a valid token is needed");
    response.set(http::field::www_authenticate, "Bearer realm=\"orvx-registry\"");
    response.insert(http::field::www_authenticate, "Basic realm=\"orvx-registry\"");
    return response;
}

std::optional<Response> forbidUnless(bool may, std::string_view what) {
    return may ? std::nullopt : std::optional(forbidden(what));
}

Response tooMany(std::chrono::seconds wait) {
    Response response =
        failure(http::status::too_many_requests, "too many requests from this address");
    response.set(http::field::retry_after, std::to_string(wait.count()));
    return response;
}

/// Whether the target is the list or a resource of the registry itself, and not an entry.
bool isOwnResource(std::string_view target) {
    return target == "/" || target.substr(0, 2) == "/?" || target == "/-" ||
           target.substr(0, 3) == "/-/";
}

bool announcesABody(const Request& header) {
    const auto length = header.find(http::field::content_length);
    return header.find(http::field::transfer_encoding) != header.end() ||
           (length != header.end() && length->value() != "0");
}

}  // namespace

bool isForEverybody(const Request& header) {
    const auto target = header.target();
    return (target == "/-/health" || target == "/-/ready") &&
           (header.method() == http::verb::get || header.method() == http::verb::head) &&
           !announcesABody(header);
}

std::shared_ptr<const Token> Guard::authenticate(const Request& header) const {
    const auto values = header.equal_range(http::field::authorization);
    if (std::distance(values.first, values.second) != 1) {
        return nullptr;
    }
    const std::string secret = secretIn(view(values.first->value()));
    return secret.empty() ? nullptr : tokens_->find(secret);
}

std::optional<Response> Guard::refuse(const Request& header, const Peer& peer, EntryStore::Time now,
                                      Caller& caller) {
    caller.address = peer.address.to_string();
    caller.name = peer.certificate;
    if (isForEverybody(header)) {
        return std::nullopt;
    }
    if (const auto wait = limiter_.refuse(peer.address, now)) {
        return tooMany(*wait);
    }
    if (!tokens_) {
        return std::nullopt;
    }
    caller.token = authenticate(header);
    if (!caller.token) {
        return unauthorized();
    }
    caller.name = caller.token->name;
    return refuse(header, *caller.token);
}

std::optional<Response> Guard::refuse(const Request& header, const Token& token) const {
    const std::string_view target = view(header.target());
    if (admin_ && target == "/-/faults") {
        return forbidUnless(token.mayAdminister, "administer");
    }
    const http::verb method = header.method();
    if (method == http::verb::put) {
        const auto path = plainPath(target);
        if (!path) {
            return failure(http::status::bad_request, "the path can be read in two ways");
        }
        // A reader of the path may cut a segment at its semicolon.
        const bool isReserved = isWithin(path->substr(0, path->find(';')), "/-");
        return forbidUnless(token.mayAnnounce(target) && !isReserved, "announce there");
    }
    if (method == http::verb::get || (method == http::verb::head && isOwnResource(target))) {
        return forbidUnless(token.mayRead, "read");
    }
    if (method == http::verb::head) {
        return forbidUnless(token.mayRead || token.scope, "check that");
    }
    return method == http::verb::delete_ ? forbidUnless(token.scope.has_value(), "withdraw that")
                                         : methodNotAllowed();
}

}  // namespace orvx::registry
