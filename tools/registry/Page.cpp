// What a browser is given: three fixed texts, and the entries in a form that is small and bounded
// whatever is registered.
// Entered by whichever thread owns the store, one at a time.
// There is no lock and no state.

#include "Page.h"

#include <algorithm>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <chrono>
#include <iterator>
#include <string>
#include <utility>

namespace orvx::registry {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

constexpr std::size_t kMostEntries = 5'000;
constexpr std::size_t kLongestText = 300;

// No text of a service can become a script, and no other site can frame the page.
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

/// Not cut within a letter.
std::string shortened(const std::string& text) {
    if (text.size() <= kLongestText) {
        return text;
    }
    std::size_t size = kLongestText;
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
        --size;
    }
    return text.substr(0, size) + "…";
}

json textOf(const json& service, const char* name) {
    const auto value = service.find(name);
    return value != service.end() && value->is_string()
               ? json(shortened(value->get_ref<const std::string&>()))
               : json();
}

json numberOf(const json& service, const char* name) {
    const auto value = service.find(name);
    return value != service.end() && value->is_number() ? *value : json();
}

template <typename Duration>
std::int64_t milliseconds(Duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

/// Times are ages in milliseconds: the browser's clock may be another one.
json row(const Entry& entry, const EntryStore& store) {
    const auto now = store.now();
    json object{{"uuid", entry.uuid},
                {"path", entry.path},
                {"name", textOf(entry.service, "name")},
                {"uri", textOf(entry.service, "uri")},
                {"port", numberOf(entry.service, "port")},
                {"checks", entry.checks},
                {"age", milliseconds(std::chrono::system_clock::now() - entry.created)},
                {"checked", nullptr}};
    if (entry.checked) {
        object["checked"] = milliseconds(now - *entry.checked);
    }
    if (entry.moved) {
        object["movedFrom"] = shortened(entry.moved->from);
        object["moved"] = milliseconds(now - entry.moved->when);
    }
    if (store.options().ttl.count() > 0) {
        object["expires"] = milliseconds(entry.renewed + store.options().ttl - now);
    }
    return object;
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

bool asksForPageEntries(const Request& request) {
    return isRead(request) && request.target() == "/-/entries";
}

Response pageEntries(const EntryStore& store, std::size_t faults) {
    const auto& entries = store.entries();
    json rows = json::array();
    for (auto entry = entries.rbegin(); entry != entries.rend() && rows.size() < kMostEntries;
         ++entry) {
        rows.push_back(row(*entry, store));
    }
    Response response =
        makeResponse(http::status::ok,
                     {{"total", entries.size()}, {"faults", faults}, {"entries", std::move(rows)}});
    response.set(http::field::cache_control, "no-store");
    return response;
}

}  // namespace orvx::registry
