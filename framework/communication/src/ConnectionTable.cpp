// Looks at what lies unread on kept connections.
// Entered by the I/O thread only; there is no lock.

#include "ConnectionTable.h"

#include <sys/socket.h>

#include <new>

namespace orvx::communication {

void ConnectionTable::remember(CURL* easy) noexcept {
    long localPort = 0;
    curl_socket_t socket = CURL_SOCKET_BAD;
    curl_easy_getinfo(easy, CURLINFO_LOCAL_PORT, &localPort);
    curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &socket);
    try {
        socketOfPort_[static_cast<int>(localPort)] = socket;
    } catch (const std::bad_alloc&) {
        // Then it is not looked at.
    }
}

bool ConnectionTable::isStale(int localPort) const {
    const auto found = socketOfPort_.find(localPort);
    char ignored = 0;
    return found != socketOfPort_.end() &&
           ::recv(found->second, &ignored, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

}  // namespace orvx::communication
