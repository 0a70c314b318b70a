// Formats the program's event lines.
// Runs on the main thread; there is no lock.

#include "Report.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace orvx::announce {

using nlohmann::json;

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): never set
    return value == nullptr ? "" : value;
}

/// JSON in ASCII, without control characters: it cannot move a terminal's cursor or begin a line.
std::string inAscii(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

std::string formatted(const json& value) {
    std::string text = inAscii(value);
    const bool isWord =
        value.is_string() && text.size() > 2 && text.find_first_of(" =\\\x7f") == std::string::npos;
    for (char& byte : text) {
        byte = byte == '\x7f' ? '?' : byte;
    }
    return isWord ? text.substr(1, text.size() - 2) : text;
}

}  // namespace

std::string timestamp(std::chrono::system_clock::time_point when) {
    std::array<char, 32> text{};
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    return {text.data(), std::strftime(text.data(), text.size(), "%FT%TZ", &parts)};
}

Report::Report(int descriptor, bool asJson)
    : asJson_(asJson),
      colour_(::isatty(descriptor) == 1 && environment("NO_COLOR").empty() &&
              environment("TERM") != "dumb"),
      writer_(
          descriptor,
          [this](std::uint64_t dropped) {
              return lineOf("lines-dropped", Severity::Error, {{"count", dropped}});
          },
          tools::LineWriter::Emptied::ByCaller) {}

void Report::event(const std::string& name, Severity severity, const json& details) {
    writer_.write(lineOf(name, severity, details));
}

std::string Report::lineOf(const std::string& name, Severity severity, const json& details) const {
    if (!asJson_) {
        return textLine(name, severity, details) + '\n';
    }
    json object{{"time", timestamp()}, {"event", name}};
    object.update(details.is_null() ? json::object() : details);
    return inAscii(object) + '\n';
}

std::string Report::textLine(const std::string& name, Severity severity,
                             const json& details) const {
    static constexpr const char* colours[] = {"", "\x1b[32m", "\x1b[31m"};
    const bool isColoured = colour_ && severity != Severity::Info;
    std::string line = timestamp() + " orvx-announce: ";
    line += isColoured ? colours[static_cast<std::size_t>(severity)] + name + "\x1b[0m" : name;
    for (const auto& [key, value] : details.items()) {
        line += ' ';
        line += key;
        line += '=';
        line += formatted(value);
    }
    return line;
}

}  // namespace orvx::announce
