// Serves the three fixed files of the page. The page reads the stream of changes like any other
// client.
// Thread-safe: there is no state.

#include "Page.h"

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>

namespace orvx::registry {

namespace http = boost::beast::http;

namespace {

// Prevents that a text of a service runs as a script, and that another site frames the page.
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

bool isRead(const Request& request) {
    return request.method() == http::verb::get || request.method() == http::verb::head;
}

Response textResponse(std::string_view type, std::string_view text) {
    Response response(http::status::ok, 11);
    response.set(http::field::content_type, {type.data(), type.size()});
    response.set(http::field::cache_control, "no-store");
    response.set("Content-Security-Policy", kPolicy);
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Referrer-Policy", "no-referrer");
    response.body() = text;
    response.prepare_payload();
    return response;
}

}  // namespace

std::optional<Response> pageAsset(const Request& request) {
    if (!isRead(request)) {
        return std::nullopt;
    }
    if (request.target() == "/" &&
        request[http::field::accept].find("text/html") != boost::string_view::npos) {
        return textResponse("text/html; charset=utf-8", asset::kHtml);
    }
    if (request.target() == "/-/page.css") {
        return textResponse("text/css; charset=utf-8", asset::kCss);
    }
    if (request.target() == "/-/page.js") {
        return textResponse("text/javascript; charset=utf-8", asset::kJs);
    }
    return std::nullopt;
}

}  // namespace orvx::registry
