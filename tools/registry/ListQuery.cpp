// Reads the queries of the list and of the stream, and compares an entry with a query.
// Thread-safe: there is no state.

#include "ListQuery.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace orvx::registry {

using nlohmann::json;

namespace {

/// Decodes a value of a query. As in HTML forms, a plus stands for a space.
std::string decode(std::string_view text) {
    std::string decoded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        auto byte = static_cast<unsigned char>(text[at] == '+' ? ' ' : text[at]);
        if (text[at] == '%') {
            const char* const digits = text.data() + at + 1;
            if (text.size() - at < 3 ||
                std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) {
                throw std::invalid_argument("the query has an escape that is none");
            }
            at += 2;
        }
        decoded += static_cast<char>(byte);
    }
    return decoded;
}

template <typename Number>
Number toNumber(std::string_view text, const char* error) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end) {
        throw std::invalid_argument(error);
    }
    return number;
}

std::uint64_t toNumberAfter(std::string_view text, std::string_view places) {
    constexpr const char* kNone = R"("after" is not one that was given as "next")";
    const auto dash = text.find('-');
    if (dash == std::string_view::npos) {
        throw std::invalid_argument(kNone);
    }
    const auto number = toNumber<std::uint64_t>(text.substr(dash + 1), kNone);
    if (text.substr(0, dash) != places) {
        throw UnknownPlace("\"after\" is of another run of the registry: begin anew");
    }
    if (number == std::numeric_limits<std::uint64_t>::max()) {
        throw std::invalid_argument(kNone);  // there is no number after it
    }
    return number;
}

/// Calls `take` with the name and the value of each field. Throws a std::invalid_argument.
template <typename Take>
void forEachField(std::string_view text, Take&& take) {
    std::string known;
    while (!text.empty()) {
        const std::string_view pair = text.substr(0, text.find('&'));
        text.remove_prefix(std::min(pair.size() + 1, text.size()));
        const std::string_view key = pair.substr(0, pair.find('='));
        if (known.find('&' + std::string(key) + '&') != std::string::npos) {
            throw std::invalid_argument("the query has a field twice");
        }
        take(key, decode(pair.substr(std::min(key.size() + 1, pair.size()))));
        known += '&' + std::string(key) + '&';
    }
}

void set(ListQuery& query, std::string_view key, std::string value, std::string_view places) {
    if (key == "name") {
        query.name = std::move(value);
    } else if (key == "category") {
        query.category = std::move(value);
    } else if (key == "version") {
        query.version = std::move(value);
    } else if (key == "after") {
        query.after = toNumberAfter(value, places);
    } else if (key == "limit") {
        constexpr const char* kLimit = "\"limit\" must be a number from 1 to 10000";
        query.limit = toNumber<std::size_t>(value, kLimit);
        if (*query.limit == 0 || *query.limit > ListQuery::kMaxLimit) {
            throw std::invalid_argument(kLimit);
        }
    } else {
        throw std::invalid_argument("the query takes name, category, version, limit and after");
    }
}

/// Whether the service's text may contain the value. The same writer escapes both, so most services
/// need not be parsed.
bool mayHold(const std::string& service, const std::optional<std::string>& value) {
    return !value || service.find(json(*value).dump(
                         -1, ' ', false, json::error_handler_t::replace)) != std::string::npos;
}

bool hasValue(const json& service, const char* field, const std::optional<std::string>& value) {
    const auto found = value ? service.find(field) : service.end();
    if (!value || found == service.end()) {
        return !value;
    }
    return found->is_array() ? std::find(found->begin(), found->end(), *value) != found->end()
                             : *found == *value;
}

}  // namespace

bool ListQuery::matches(const Entry& entry) const {
    for (const auto* value : {&name, &category, &version}) {
        if (!mayHold(entry.service, *value)) {
            return false;
        }
    }
    if (!name && !category && !version) {
        return true;
    }
    const json service = json::parse(entry.service);
    return hasValue(service, "name", name) && hasValue(service, "serviceCategories", category) &&
           hasValue(service, "versions", version);
}

ListQuery parseListQuery(std::string_view text, std::string_view places) {
    ListQuery query;
    forEachField(text, [&](std::string_view key, std::string value) {
        set(query, key, std::move(value), places);
    });
    return query;
}

bool wantsChecks(std::string_view text) {
    bool isWanted = true;
    forEachField(text, [&isWanted](std::string_view key, const std::string& value) {
        if (key != "checks" || (value != "yes" && value != "no")) {
            throw std::invalid_argument("the query takes checks=yes or checks=no");
        }
        isWanted = value == "yes";
    });
    return isWanted;
}

std::string placeAfter(std::uint64_t number, std::string_view places) {
    return std::string(places) + '-' + std::to_string(number);
}

}  // namespace orvx::registry
