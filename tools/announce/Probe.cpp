// Runs one attempt to reach a service as blocking code in a process of its own.
// The main thread starts the process, which has one thread; there is no lock.

#include "Probe.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <string_view>

namespace orvx::announce {

namespace {

/// The first argument of an attempt's process. It is no option, so no valid call by a user has it.
constexpr const char* kProbe = "probe";

/// The length of a status line up to the status.
constexpr std::size_t kStatusLine = 12;
constexpr std::string_view kEndOfHeader = "\r\n\r\n";
/// An interim answer that is longer counts as a failure.
constexpr std::size_t kMostReceived = 65'536;

using Clock = std::chrono::steady_clock;

enum ProbeResult { kSuccess = 0, kNoConnection = 1, kNoGoodAnswer = 2 };

std::string inBrackets(const std::string& host) {
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

/// The kernel may choose the target port, if no process listens there, as the local port: then the
/// connection is connected to itself.
bool isSelfConnection(int connection) {
    sockaddr_storage here{};
    sockaddr_storage there{};
    socklen_t size = sizeof here;
    ::getsockname(connection, reinterpret_cast<sockaddr*>(&here), &size);
    size = sizeof there;
    ::getpeername(connection, reinterpret_cast<sockaddr*>(&there), &size);
    return std::memcmp(&here, &there, sizeof here) == 0;
}

/// Returns a connected socket, or -1.
int connectTo(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0) {
        return -1;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, ::freeaddrinfo);
    for (; list != nullptr; list = list->ai_next) {
        const int connection = ::socket(list->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connection >= 0 && ::connect(connection, list->ai_addr, list->ai_addrlen) == 0 &&
            !isSelfConnection(connection)) {
            return connection;
        }
        ::close(connection);
    }
    return -1;
}

/// An answer that another one follows; none follows 101.
bool isInterim(const std::string& statusLine) {
    return std::regex_match(statusLine, std::regex("HTTP/1\\.[01] 1(?!01)[0-9][0-9]"));
}

/// Removes the interim answers that have arrived whole. Returns the beginning of the next one.
std::string nextStatusLine(std::string& received) {
    for (;;) {
        std::string line = received.substr(0, kStatusLine);
        const auto end = isInterim(line) ? received.find(kEndOfHeader) : std::string::npos;
        if (end == std::string::npos) {
            return line;
        }
        received.erase(0, end + kEndOfHeader.size());
    }
}

bool answersWithSuccess(int connection, const std::string& host, const std::string& path) {
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host +
                                "\r\nConnection: close\r\nUser-Agent: orvx-announce\r\n\r\n";
    if (::send(connection, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        return false;
    }
    std::string received;
    std::array<char, 4096> bytes{};
    while (received.size() < kMostReceived) {
        const auto size = ::recv(connection, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return false;
        }
        received.append(bytes.data(), static_cast<std::size_t>(size));
        const std::string line = nextStatusLine(received);
        if (line.size() == kStatusLine && !isInterim(line)) {
            return std::regex_match(line, std::regex("HTTP/1\\.[01] [23][0-9][0-9]"));
        }
    }
    return false;
}

/// Reads what follows, but nothing that is too much, too late or without an end.
void readRest(int connection) {
    constexpr std::size_t kMost = 1024 * 1024;
    constexpr int kLongestPause = 200;  // in milliseconds
    const auto end = Clock::now() + std::chrono::seconds(1);
    std::array<char, 16 * 1024> bytes{};
    pollfd polled{connection, POLLIN, 0};
    std::size_t sum = 0;
    while (sum < kMost && Clock::now() < end && ::poll(&polled, 1, kLongestPause) == 1) {
        const auto size = ::recv(connection, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size <= 0) {
            return;
        }
        sum += static_cast<std::size_t>(size);
    }
}

/// A close before the end of the answer would reset the connection, which servers report as an
/// error. The result does not wait for that end: another process does. fork() is safe, because this
/// process has one thread.
void closeAfterAnswer(int connection) {
    if (::fork() == 0) {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::close(stream);  // nobody waits for the end of this process
        }
        readRest(connection);
        ::_exit(0);
    }
    ::close(connection);
}

ProbeResult probe(const std::string& host, const std::string& port, const std::string& path) {
    const int connection = connectTo(host, port);
    if (connection < 0) {
        return kNoConnection;
    }
    if (path.empty()) {
        ::close(connection);
        return kSuccess;
    }
    const bool isGood = answersWithSuccess(connection, inBrackets(host) + ":" + port, path);
    closeAfterAnswer(connection);
    return isGood ? kSuccess : kNoGoodAnswer;
}

std::string toSeconds(std::chrono::milliseconds duration) {
    return std::to_string(std::chrono::ceil<std::chrono::seconds>(duration).count());
}

/// SIGALRM ends this process after `limit`, or at `end` if that is earlier.
void limitTime(std::chrono::seconds limit, Clock::time_point end) {
    const auto left = std::min(limit, std::chrono::ceil<std::chrono::seconds>(end - Clock::now()));
    if (left <= std::chrono::seconds::zero()) {
        std::raise(SIGALRM);
    }
    ::alarm(static_cast<unsigned>(left.count()));
}

}  // namespace

pid_t startProbe(Children& children, const ProbeOptions& options,
                 const std::vector<std::string>& targets,
                 const std::vector<std::string>& shellArguments, const ProbeLimits& limits,
                 Children::OnExit onExit) {
    std::vector<std::string> arguments;
    if (options.kind == ProbeOptions::Kind::Command) {
        arguments = {"/bin/sh", "-c", options.command, "sh"};
        arguments.insert(arguments.end(), shellArguments.begin(), shellArguments.end());
    } else {
        // fork() without exec() is not safe: the library's threads may hold locks.
        arguments = {"/proc/self/exe", kProbe, toSeconds(limits.each), toSeconds(limits.all),
                     options.path};
        arguments.insert(arguments.end(), targets.begin(), targets.end());
    }
    return children.spawnProbe(arguments, std::move(onExit));
}

// The limit of this process's own descriptors (EMFILE) does not apply: the child closes its stdin
// before it opens another one.
bool isShortage(const std::error_code& error) {
    return error == std::errc::resource_unavailable_try_again ||
           error == std::errc::not_enough_memory ||
           error == std::errc::too_many_files_open_in_system;
}

std::string probeFailureReason(const ProbeOptions& options, int status) {
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGKILL || WTERMSIG(status) == SIGALRM
                   ? "no answer in time"
                   : "ended by signal " + std::to_string(WTERMSIG(status));
    }
    if (options.kind == ProbeOptions::Kind::Command) {
        return "exit status " + std::to_string(WEXITSTATUS(status));
    }
    return WEXITSTATUS(status) == kNoConnection ? "takes no connection"
                                                : "no answer with a status from 200 to 399";
}

std::optional<int> runAsProbe(int argc, char** argv) {
    constexpr int kFirstTarget = 5;
    if (argc < kFirstTarget || std::string_view(argv[1]) != kProbe) {
        return std::nullopt;
    }
    const std::chrono::seconds limitOfEach(std::strtol(argv[2], nullptr, 10));
    const auto end = Clock::now() + std::chrono::seconds(std::strtol(argv[3], nullptr, 10));
    for (int i = kFirstTarget; i + 1 < argc; i += 2) {
        limitTime(limitOfEach, end);
        const ProbeResult result = probe(argv[i], argv[i + 1], argv[4]);
        if (result != kSuccess) {
            return result;
        }
    }
    return kSuccess;
}

}  // namespace orvx::announce
