// Writes a line for each change at once. All that a client has chosen is in JSON's ASCII: nothing
// in it can end the line or steer a terminal. Entered by the thread that runs the server, or a
// test's. There is no lock.

#include "AuditLog.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

namespace orvx::registry {

using nlohmann::json;

namespace {

std::string now() {
    const std::time_t time = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    std::array<char, 40> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

const char* nameOf(Change change) {
    switch (change) {
        case Change::Announced:
            return "announced";
        case Change::Replaced:
            return "replaced";
        case Change::Withdrawn:
            return "withdrawn";
        case Change::Expired:
            return "expired";
        case Change::Forgotten:
            return "forgotten";
    }
    return "";
}

std::string lineOf(json line, const Caller* caller) {
    line["time"] = now();
    line["who"] = caller != nullptr && !caller->name.empty() ? json(caller->name) : json();
    line["from"] = caller != nullptr ? json(caller->address) : json();
    return line.dump(-1, ' ', true, json::error_handler_t::replace) + '\n';
}

}  // namespace

AuditLog::AuditLog(const std::string& path)
    : output_("audit log", path, [](std::uint64_t dropped) {
          return lineOf(json{{"what", "lines dropped"}, {"count", dropped}}, nullptr);
      }) {}

bool AuditLog::write(Change change, const Entry& entry, const Caller* caller) {
    return write(json{{"what", nameOf(change)},
                      {"path", entry.path},
                      {"uuid", entry.uuid},
                      {"address", entry.address}},
                 caller);
}

bool AuditLog::write(std::string_view what, const Caller* caller) {
    return write(json{{"what", what}}, caller);
}

bool AuditLog::write(json line, const Caller* caller) {
    return output_.write(lineOf(std::move(line), caller));
}

}  // namespace orvx::registry
