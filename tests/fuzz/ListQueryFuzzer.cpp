// Queries for entries, made from parts or of any bytes: they are refused, or read as they were
// written. The result of matching an entry is compared with the entry's JSON. One thread; there is
// no lock.

#include "Input.h"
#include "ListQuery.h"

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace {

using nlohmann::json;
using orvx::fuzz::Input;
using orvx::fuzz::isUtf8;
using orvx::fuzz::require;
using orvx::fuzz::requireSame;
using orvx::registry::Entry;
using orvx::registry::ListQuery;
using orvx::registry::parseListQuery;
using orvx::registry::placeAfter;
using orvx::registry::UnknownPlace;

constexpr const char* kInstance = "1a2ecc39";

std::optional<ListQuery> parse(const std::string& text) {
    try {
        return parseListQuery(text, kInstance);
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    } catch (const UnknownPlace&) {
        return std::nullopt;
    }
}

/// Some bytes are written unchanged where that is allowed, the others as escapes.
std::string escaped(const std::string& text, unsigned plain) {
    std::string made;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (letter == ' ') {
            made += '+';
        } else if (letter != '%' && letter != '&' && letter != '+' && byte % 8 != plain) {
            made += letter;
        } else {
            made += '%';
            made += "0123456789abcdef"[byte / 16];
            made += "0123456789abcdef"[byte % 16];
        }
    }
    return made;
}

/// A query, and its fields.
class Written {
  public:
    explicit Written(Input& input) {
        for (unsigned left = input.below(7); left > 0; --left) {
            add(input);
        }
    }

    void compare(const std::optional<ListQuery>& read) const {
        requireSame(read.has_value(), isFine_, "reading a query");
        if (read) {
            require(read->name == query_.name && read->category == query_.category &&
                        read->version == query_.version,
                    "the texts");
            require(read->limit == query_.limit && read->after == query_.after, "the numbers");
        }
    }

    const std::string& text() const { return text_; }

  private:
    void add(Input& input) {
        static constexpr std::array kKeys{"name", "category", "version", "limit", "after"};
        const unsigned which = input.below(kKeys.size());
        isFine_ = isFine_ && !wasGiven_[which];
        wasGiven_[which] = true;
        text_ += (text_.empty() ? "" : "&") + std::string(kKeys[which]) + '=';
        if (which < 3) {
            const unsigned plain = input.below(8);
            const std::string value = input.text();
            text_ += escaped(value, plain);
            (which == 0 ? query_.name : which == 1 ? query_.category : query_.version) = value;
        } else if (which == 3) {
            query_.limit = input.number() >> input.below(64);
            text_ += std::to_string(*query_.limit);
            isFine_ = isFine_ && *query_.limit >= 1 && *query_.limit <= ListQuery::kMaxLimit;
        } else {
            query_.after = input.number();
            text_ += placeAfter(query_.after, kInstance);
            isFine_ = isFine_ && query_.after != std::numeric_limits<std::uint64_t>::max();
        }
    }

    std::string text_;
    ListQuery query_;
    std::array<bool, 5> wasGiven_{};
    bool isFine_ = true;
};

json valueFrom(Input& input, const std::optional<std::string>& wanted) {
    switch (input.below(6)) {
        case 0:
            return json();
        case 1:
            return input.byte();
        case 2:
            return json::array({input.byte(), wanted.value_or("a"), input.text()});
        case 3:
            return json{{wanted.value_or("a"), wanted.value_or("a")}};
        case 4:
            return input.text();
        default:
            return wanted.value_or("a");
    }
}

bool isAt(const json& value, const std::optional<std::string>& wanted) {
    if (!wanted || !value.is_array()) {
        return !wanted || value == json(*wanted);
    }
    return std::any_of(value.begin(), value.end(),
                       [&wanted](const json& one) { return one == json(*wanted); });
}

void compareMatch(Input& input, const ListQuery& query) {
    const json given{{"name", valueFrom(input, query.name)},
                     {"serviceCategories", valueFrom(input, query.category)},
                     {"versions", valueFrom(input, query.version)}};
    Entry entry;
    entry.service = orvx::registry::serialize(given);
    const json kept = json::parse(entry.service);
    requireSame(query.matches(entry),
                isAt(kept["name"], query.name) && isAt(kept["serviceCategories"], query.category) &&
                    isAt(kept["versions"], query.version),
                "matching");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    std::optional<ListQuery> read;
    if (input.below(4) == 0) {
        read = parse(input.text());
    } else {
        const Written written(input);
        read = parse(written.text());
        written.compare(read);
    }
    if (read) {
        require(!read->limit || (*read->limit >= 1 && *read->limit <= ListQuery::kMaxLimit),
                "a limit is within its limits");
        compareMatch(input, *read);
    }
    return 0;
}
