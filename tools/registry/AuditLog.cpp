// Writes a line for each change at once. All that a client has chosen is in JSON's ASCII: nothing
// in it can end the line or steer a terminal. Entered by the thread that runs the server, or a
// test's. There is no lock.

#include "AuditLog.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "FileError.h"

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

}  // namespace

AuditLog::AuditLog(const std::string& path) : out_(path == "-" ? std::cout : file_) {
    if (path == "-") {
        return;
    }
    file_.open(path, std::ios::app);
    if (!file_) {
        throw FileError("audit " + path + ": " + std::generic_category().message(errno));
    }
}

void AuditLog::write(Change change, const Entry& entry, const Caller* caller) {
    write(json{{"what", nameOf(change)},
               {"path", entry.path},
               {"uuid", entry.uuid},
               {"address", entry.address}},
          caller);
}

void AuditLog::write(std::string_view what, const Caller* caller) {
    write(json{{"what", what}}, caller);
}

void AuditLog::write(json line, const Caller* caller) {
    line["time"] = now();
    line["who"] = caller != nullptr && !caller->name.empty() ? json(caller->name) : json();
    line["from"] = caller != nullptr ? json(caller->address) : json();
    out_.clear();
    out_ << line.dump(-1, ' ', true, json::error_handler_t::replace) << std::endl;
    if (!out_ && !hasFailed_) {
        std::cerr << "orvx-registry: the audit log cannot be written" << std::endl;
    }
    hasFailed_ = !out_;
}

}  // namespace orvx::registry
