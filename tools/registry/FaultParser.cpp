// Reads faults from lines of JSON, strictly: what is misspelt is refused, not ignored.
// Entered by any thread; there is no state and no lock.

#include <algorithm>
#include <initializer_list>
#include <stdexcept>
#include <string>

#include "Faults.h"

namespace orvx::registry {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

constexpr std::size_t kMaxFaults = 100;
constexpr std::uint64_t kMaxDelay = 600'000;
constexpr std::uint64_t kMaxRequests = 1'000'000'000;
constexpr double kMaxSeconds = 86'400;

[[noreturn]] void refuse(const std::string& why) {
    throw std::invalid_argument(why);
}

/// One object; each field is taken out as it is read, so that what remains is unknown.
class Fields {
  public:
    explicit Fields(std::string_view line) : object_(json::parse(line, nullptr, false)) {
        if (!object_.is_object()) {
            refuse("not a JSON object");
        }
    }

    bool has(const char* name) const { return object_.contains(name); }

    std::string text(const char* name) {
        const json value = take(name);
        return value.is_string() ? value.get<std::string>()
                                 : (refuse(quoted(name) + " must be a text"), "");
    }

    std::uint64_t number(const char* name, std::uint64_t least, std::uint64_t most) {
        const json value = take(name);
        if (!value.is_number_unsigned() || value < least || value > most) {
            refuse(quoted(name) + " must be a whole number from " + std::to_string(least) + " to " +
                   std::to_string(most));
        }
        return value.get<std::uint64_t>();
    }

    std::chrono::milliseconds seconds(const char* name) {
        const json value = take(name);
        if (!value.is_number() || value < 0 || value > kMaxSeconds) {
            refuse(quoted(name) + " must be a number of seconds from 0 to 86400");
        }
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::duration<double>(value.get<double>()));
    }

    void requireNoMore() const {
        if (!object_.empty()) {
            refuse(quoted(object_.begin().key()) + " has no meaning here");
        }
    }

  private:
    static std::string quoted(const std::string& name) { return "\"" + name + "\""; }

    json take(const char* name) {
        if (!has(name)) {
            refuse(quoted(name) + " is missing");
        }
        json value = std::move(object_[name]);
        object_.erase(name);
        return value;
    }

    json object_;
};

void readKind(Fields& fields, Fault& fault) {
    const std::string kind = fields.text("fault");
    if (kind == "delay") {
        fault.kind = Fault::Kind::DELAY;
        fault.delay = std::chrono::milliseconds(fields.number("milliseconds", 1, kMaxDelay));
    } else if (kind == "reset") {
        fault.kind = Fault::Kind::RESET;
    } else if (kind == "status") {
        fault.kind = Fault::Kind::STATUS;
        fault.status = static_cast<unsigned>(fields.number("status", 400, 599));
    } else if (kind == "forget") {
        fault.kind = Fault::Kind::FORGET;
        fault.uuid = fields.has("uuid") ? fields.text("uuid") : "";
        fault.requests = 1;
    } else {
        refuse("\"fault\" must be delay, reset, status or forget");
    }
}

http::verb readMethod(Fields& fields) {
    const http::verb method = http::string_to_verb(fields.text("method"));
    for (const auto known :
         {http::verb::put, http::verb::head, http::verb::delete_, http::verb::get}) {
        if (method == known) {
            return method;
        }
    }
    refuse("\"method\" must be PUT, HEAD, DELETE or GET");
}

Fault readFault(std::string_view line, EntryStore::Time now) {
    Fields fields(line);
    Fault fault;
    readKind(fields, fault);
    if (fields.has("method")) {
        fault.method = readMethod(fields);
    }
    if (fields.has("skip")) {
        fault.skip = fields.number("skip", 0, kMaxRequests);
    }
    if (fields.has("requests")) {
        fault.requests = fields.number("requests", 1, kMaxRequests);
    }
    fault.begin = now + (fields.has("after") ? fields.seconds("after") : std::chrono::seconds(0));
    if (fields.has("seconds")) {
        fault.end = fault.begin + fields.seconds("seconds");
    }
    fields.requireNoMore();
    return fault;
}

}  // namespace

std::vector<Fault> parseFaults(std::string_view text, EntryStore::Time now) {
    std::vector<Fault> faults;
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const auto first = line.find_first_not_of(" \t\r");
        if (first == std::string_view::npos || line[first] == '#') {
            continue;
        }
        try {
            faults.size() < kMaxFaults ? faults.push_back(readFault(line, now))
                                       : refuse("there are more than 100 faults");
        } catch (const std::invalid_argument& error) {
            throw std::invalid_argument("line " + std::to_string(number) + ": " + error.what());
        }
    }
    return faults;
}

}  // namespace orvx::registry
