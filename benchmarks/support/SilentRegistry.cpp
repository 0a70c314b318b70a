// A socket that listens and never accepts: the kernel completes the connections by itself.
// One thread, no lock.

#include "SilentRegistry.h"

#include "Measure.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvx::benchmarks {

SilentRegistry::SilentRegistry() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listener_, any, size) == 0 && ::listen(listener_, 1024) == 0 &&
                ::getsockname(listener_, any, &size) == 0,
            "cannot listen");
    port_ = ntohs(address.sin_port);
}

SilentRegistry::~SilentRegistry() {
    ::close(listener_);
}

}  // namespace orvx::benchmarks
