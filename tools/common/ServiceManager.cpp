// Notifies the service manager of readiness, state and liveness.
// Runs on the main thread; there is no lock.

#include "ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace orvx::tools {

using std::chrono::milliseconds;

namespace {

/// A longer interval could overflow the clock.
constexpr milliseconds kLongestInterval = std::chrono::hours(1);

std::string environment(const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no thread sets one
    return value == nullptr ? "" : value;
}

milliseconds watchdogNotificationInterval() {
    const std::string whose = environment("WATCHDOG_PID");
    const bool isOurs = whose.empty() || whose == std::to_string(::getpid());
    const long long microseconds =
        isOurs ? std::strtoll(environment("WATCHDOG_USEC").c_str(), nullptr, 10) : 0;
    return microseconds > 0 ? std::min(milliseconds(microseconds / 3000 + 1), kLongestInterval)
                            : milliseconds(0);
}

}  // namespace

ServiceManager::ServiceManager()
    : address_(environment("NOTIFY_SOCKET")), watchdogInterval_(watchdogNotificationInterval()) {
    if (!address_.empty()) {
        socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
}

ServiceManager::~ServiceManager() {
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

bool ServiceManager::notify(const std::string& state) const {
    sockaddr_un to{};
    if (socket_ < 0 || address_.size() >= sizeof to.sun_path) {
        return true;
    }
    to.sun_family = AF_UNIX;
    std::memcpy(to.sun_path, address_.data(), address_.size());
    if (address_[0] == '@') {
        to.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
    return ::sendto(socket_, state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&to), size) >= 0;
}

void ServiceManager::notifyStatus(const std::string& text) {
    if (text != status_ && notify("STATUS=" + text)) {
        status_ = text;
    }
}

}  // namespace orvx::tools
