// Looks for established connections among the descriptors of this process.
// Runs on the main thread; there is no lock. Other threads may open and close descriptors
// meanwhile, so nothing but queries is done with them.

#include "Connections.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace orvx::announce {

namespace {

/// Inherited descriptors stay open over exec(); those that this process opens do not.
bool isOwn(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) == FD_CLOEXEC;
}

bool isStream(int descriptor) {
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

bool hasPeer(int descriptor, Via via) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    return ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
           (peer.ss_family == AF_UNIX) == (via == Via::UnixSocket);
}

}  // namespace

bool mayBeConnected(Via via) {
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc/self/fd", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const int descriptor = std::stoi(entry->path().filename());
        if (isOwn(descriptor) && isStream(descriptor) && hasPeer(descriptor, via)) {
            return true;
        }
    }
    return static_cast<bool>(error);
}

}  // namespace orvx::announce
