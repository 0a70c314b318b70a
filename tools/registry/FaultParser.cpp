// Reads faults from lines of JSON. Unknown fields are refused, not ignored.
// Thread-safe: there is no state.

#include <initializer_list>
#include <stdexcept>
#include <string>

#include "Faults.h"
#include "JsonFields.h"

namespace orvx::registry {

namespace http = boost::beast::http;

namespace {

constexpr std::size_t kMaxFaults = 100;
constexpr std::uint64_t kMaxDelay = 600'000;
constexpr std::uint64_t kMaxRequests = 1'000'000'000;
constexpr double kMaxSeconds = 86'400;

[[noreturn]] void refuse(const std::string& why) {
    throw std::invalid_argument(why);
}

std::chrono::milliseconds seconds(JsonFields& fields, const char* name) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(fields.fraction(name, kMaxSeconds, "seconds")));
}

void readKind(JsonFields& fields, Fault& fault) {
    const std::string kind = fields.text("fault");
    if (kind == "delay") {
        fault.kind = Fault::Kind::Delay;
        fault.delay = std::chrono::milliseconds(fields.number("milliseconds", 1, kMaxDelay));
    } else if (kind == "reset") {
        fault.kind = Fault::Kind::Reset;
    } else if (kind == "status") {
        fault.kind = Fault::Kind::Status;
        fault.status = static_cast<unsigned>(fields.number("status", 400, 599));
    } else if (kind == "forget") {
        fault.kind = Fault::Kind::Forget;
        if (fields.has("uuid")) {
            fault.uuid = fields.text("uuid");
            if (fault.uuid.empty()) {
                refuse("\"uuid\" must be that of an entry");
            }
        }
        fault.requests = 1;
    } else {
        refuse("\"fault\" must be delay, reset, status or forget");
    }
}

http::verb readMethod(JsonFields& fields) {
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
    JsonFields fields(line);
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
    fault.begin = now + (fields.has("after") ? seconds(fields, "after") : std::chrono::seconds(0));
    if (fields.has("seconds")) {
        fault.end = fault.begin + seconds(fields, "seconds");
    }
    fields.requireNoMore();
    return fault;
}

}  // namespace

std::vector<Fault> parseFaults(std::string_view text, EntryStore::Time now) {
    std::vector<Fault> faults;
    JsonFields::forEachLine(text, [&](std::string_view line) {
        faults.size() < kMaxFaults ? faults.push_back(readFault(line, now))
                                   : refuse("there are more than 100 faults");
    });
    return faults;
}

}  // namespace orvx::registry
