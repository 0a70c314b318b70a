#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <cstdint>
#include <string>

namespace orvx::registry {

/// A connection to 127.0.0.1 that sends what it is told, byte by byte, and reads answers. All that
/// waits throws a std::runtime_error after ten seconds.
///
/// Thread-safety: none.
class RawConnection {
  public:
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    /// `receiveBuffer`: in bytes; 0 leaves it to the system.
    explicit RawConnection(std::uint16_t port, int receiveBuffer = 0);
    RawConnection(RawConnection&& other) noexcept;
    ~RawConnection();

    void send(const std::string& bytes);
    /// No more will be sent, but answers are still read.
    void endSending();
    /// Gives the connection up; what is on its way is lost. Nothing may follow.
    void reset();

    /// The next answer. One to HEAD has no body, whatever its header says.
    Response receive(bool toHead = false);
    /// send() and receive().
    Response ask(const std::string& request);
    /// The bytes up to that text and with it, of whatever comes.
    std::string readUntil(const std::string& text);
    /// True when the other side ends the connection without another byte.
    bool isClosedByPeer();
    /// Waits until the other side gives the connection up, reading nothing.
    void awaitReset();
    /// Whether the other side ends or gives up the connection within that time; reads nothing.
    bool endsWithin(std::chrono::milliseconds longest) const;

  private:
    void await(short events);
    /// False at the end of the stream.
    bool readMore();

    int socket_;
    std::string unread_;
};

/// A whole request, with a Content-Length if there is a body.
std::string makeRequest(const std::string& method, const std::string& target,
                        const std::string& body = {});

}  // namespace orvx::registry
