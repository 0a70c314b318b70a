// Writes the program's event lines.
// Runs on the main thread; there is no lock. The command shares the open file description of the
// standard stream, so its flags are not changed: a pipe or a terminal is opened a second time,
// non-blocking. Where that is forbidden, and for other kinds of files, poll() tells that a write
// does not block.

#include "Report.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

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

/// Returns a non-blocking descriptor of the same pipe or terminal; -1 for other kinds of files.
int reopen(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 ||
        (!S_ISFIFO(status.st_mode) && ::isatty(descriptor) != 1)) {
        return -1;
    }
    const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
    return ::open(name.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

/// Writes at most PIPE_BUF bytes: poll() guarantees that a pipe has room for them.
ssize_t writeSome(int descriptor, const std::string& bytes) {
    const std::size_t size = std::min<std::size_t>(bytes.size(), PIPE_BUF);
    const auto sent = ::send(descriptor, bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? ::write(descriptor, bytes.data(), size) : sent;
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
    : ownDescriptor_(reopen(descriptor)),
      descriptor_(ownDescriptor_ < 0 ? descriptor : ownDescriptor_),
      asJson_(asJson),
      colour_(::isatty(descriptor) == 1 && environment("NO_COLOR").empty() &&
              environment("TERM") != "dumb") {}

Report::~Report() {
    if (ownDescriptor_ >= 0) {
        ::close(ownDescriptor_);
    }
}

void Report::event(const std::string& name, Severity severity, const json& details) {
    std::string line;
    if (asJson_) {
        json object{{"time", timestamp()}, {"event", name}};
        object.update(details.is_null() ? json::object() : details);
        line = inAscii(object);
    } else {
        line = textLine(name, severity, details);
    }
    line += '\n';
    writePending();
    if (pending_.empty()) {
        pending_ = std::move(line);
        const std::size_t whole = pending_.size();
        writePending();
        if (pending_.size() == whole) {
            pending_.clear();
        }
    }
}

void Report::writePending() {
    pollfd polled{descriptor_, POLLOUT, 0};
    while (!pending_.empty() && ::poll(&polled, 1, 0) == 1 && (polled.revents & POLLOUT) != 0) {
        const ssize_t written = writeSome(descriptor_, pending_);
        if (written > 0) {
            pending_.erase(0, static_cast<std::size_t>(written));
        } else if (errno != EAGAIN) {
            pending_.clear();
        } else {
            return;
        }
    }
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
