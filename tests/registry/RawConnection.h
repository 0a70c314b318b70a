#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "TestConnection.h"

namespace orvx::registry {

/// A connection to 127.0.0.1 that sends exactly the given bytes.
///
/// Thread-safety: none.
class RawConnection final : public TestConnection {
  public:
    /// `receiveBuffer`: in bytes; 0 for the system's default.
    explicit RawConnection(std::uint16_t port, int receiveBuffer = 0);
    RawConnection(RawConnection&& other) noexcept;
    ~RawConnection() override;

    void send(const std::string& bytes) override;
    /// Ends sending; answers can still be read.
    void endSending();
    /// Resets the connection and discards unsent bytes. No other function may be called afterwards.
    void reset();

    /// Waits for the end of the connection. Returns whether it came without a further byte.
    bool isClosedByPeer();
    /// Waits until the peer resets or closes the connection, without reading.
    void awaitReset();
    /// Whether the peer ends or resets the connection within that time. Does not read.
    bool endsWithin(std::chrono::milliseconds longest) const;

  private:
    friend class RawListener;
    struct Accepted {
        int socket;
    };

    explicit RawConnection(Accepted accepted) : socket_(accepted.socket) {}
    void await(short events);
    bool readMore() override;

    int socket_;
};

/// Listens at any free port of 127.0.0.1, for tests that act as a server.
///
/// Thread-safety: none.
class RawListener {
  public:
    RawListener();
    ~RawListener();
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;

    std::uint16_t port() const { return port_; }
    /// Waits for the next connection.
    RawConnection accept() const;

  private:
    int socket_;
    std::uint16_t port_ = 0;
};

/// A complete request, with a Content-Length if there is a body.
std::string makeRequest(const std::string& method, const std::string& target,
                        const std::string& body = {});

}  // namespace orvx::registry
