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
    /// `receiveBuffer`: in bytes; 0 leaves it to the system.
    explicit RawConnection(std::uint16_t port, int receiveBuffer = 0);
    RawConnection(RawConnection&& other) noexcept;
    ~RawConnection() override;

    void send(const std::string& bytes) override;
    /// No more will be sent, but answers are still read.
    void endSending();
    /// Gives the connection up; what is on its way is lost. Nothing may follow.
    void reset();

    /// True when the other side ends the connection without another byte.
    bool isClosedByPeer();
    /// Waits until the other side gives the connection up, reading nothing.
    void awaitReset();
    /// Whether the other side ends or gives up the connection within that time; reads nothing.
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

/// Listens at 127.0.0.1, at any free port, for tests that play a server.
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

/// A whole request, with a Content-Length if there is a body.
std::string makeRequest(const std::string& method, const std::string& target,
                        const std::string& body = {});

}  // namespace orvx::registry
