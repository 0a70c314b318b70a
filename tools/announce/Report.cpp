// The lines that the program writes.
// Everything happens on the main thread; there is no lock. The descriptor is shared with the
// command and stays as it is: whether it would block is asked before.

#include "Report.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace orvx::announce {

using nlohmann::json;

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets one
    return value == nullptr ? "" : value;
}

/// As JSON in ASCII: nothing in it moves a terminal's cursor, or begins a line.
std::string inAscii(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

std::string shown(const json& value) {
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
    : descriptor_(descriptor),
      asJson_(asJson),
      colour_(::isatty(descriptor) == 1 && environment("NO_COLOR").empty() &&
              environment("TERM") != "dumb") {}

void Report::event(const std::string& name, Mood mood, const json& details) {
    std::string line;
    if (asJson_) {
        json object{{"time", timestamp()}, {"event", name}};
        object.update(details.is_null() ? json::object() : details);
        line = inAscii(object);
    } else {
        line = forPeople(name, mood, details);
    }
    line += '\n';
    pollfd polled{descriptor_, POLLOUT, 0};
    if (::poll(&polled, 1, 0) == 1 && (polled.revents & POLLOUT) != 0) {
        [[maybe_unused]] const auto written = ::write(descriptor_, line.data(), line.size());
    }
}

std::string Report::forPeople(const std::string& name, Mood mood, const json& details) const {
    static constexpr const char* colours[] = {"", "\x1b[32m", "\x1b[31m"};
    const bool isColoured = colour_ && mood != Mood::Plain;
    std::string line = timestamp() + " orvx-announce: ";
    line += isColoured ? colours[static_cast<std::size_t>(mood)] + name + "\x1b[0m" : name;
    for (const auto& [key, value] : details.items()) {
        line += ' ';
        line += key;
        line += '=';
        line += shown(value);
    }
    return line;
}

}  // namespace orvx::announce
