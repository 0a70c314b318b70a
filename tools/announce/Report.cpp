// The lines that the program writes.
// Everything happens on the main thread; there is no lock. The open file description of the
// standard stream is shared with the command, so its flags stay as they are: a pipe or a terminal
// is opened a second time, without blocking; where that is forbidden, and for everything else,
// poll() promises that some bytes can be written.

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

/// Writes to the same pipe or terminal and never blocks; -1 when there is none.
int openAgain(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 ||
        (!S_ISFIFO(status.st_mode) && ::isatty(descriptor) != 1)) {
        return -1;
    }
    const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
    return ::open(name.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

/// poll() promises room for PIPE_BUF bytes in a pipe.
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
    : ownDescriptor_(openAgain(descriptor)),
      descriptor_(ownDescriptor_ < 0 ? descriptor : ownDescriptor_),
      asJson_(asJson),
      colour_(::isatty(descriptor) == 1 && environment("NO_COLOR").empty() &&
              environment("TERM") != "dumb") {}

Report::~Report() {
    if (ownDescriptor_ >= 0) {
        ::close(ownDescriptor_);
    }
}

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
    writeRest();
    if (rest_.empty()) {
        rest_ = std::move(line);
        const std::size_t whole = rest_.size();
        writeRest();
        if (rest_.size() == whole) {
            rest_.clear();
        }
    }
}

void Report::writeRest() {
    pollfd polled{descriptor_, POLLOUT, 0};
    while (!rest_.empty() && ::poll(&polled, 1, 0) == 1 && (polled.revents & POLLOUT) != 0) {
        const ssize_t written = writeSome(descriptor_, rest_);
        if (written > 0) {
            rest_.erase(0, static_cast<std::size_t>(written));
        } else if (errno != EAGAIN) {
            rest_.clear();
        } else {
            return;
        }
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
