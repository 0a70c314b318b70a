#pragma once

#include <curl/curl.h>

#include <unordered_map>

namespace orvx::communication {

/// The sockets of the connections that are used again and again, by their local ports.
///
/// libcurl reuses a connection although something that nobody asked for lies there to be read: the
/// body of an answer that has none, or a parting "408 Request Timeout". The next request would take
/// it for its answer. This finds out, just before that request is sent.
///
/// What it says may be about another connection when a port was used twice or a socket's number
/// belongs to something else by now; then a good connection is given up, or a bad one is not
/// noticed.
///
/// Of one engine; for its I/O thread only.
class ConnectionTable {
  public:
    /// The handle has just received the first answer over a new connection.
    void remember(CURL* easy) noexcept;
    /// Whether the peer has said something, or closed, since the last answer.
    bool isStale(int localPort) const;

  private:
    std::unordered_map<int, curl_socket_t> socketOfPort_;
};

}  // namespace orvx::communication
