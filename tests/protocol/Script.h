#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <limits>
#include <string>
#include <utility>
#include <variant>

namespace orvx::testing {

/// What a Script consists of; tests build them with Script.
namespace step {
struct ReadRequest {};
struct ReadBytes {
    std::size_t count;
};
struct Send {
    std::string bytes;
    std::size_t left;  // to be sent, going round `bytes` if it is more than they are
    std::size_t piece;
    std::chrono::milliseconds interval;
    std::size_t position = 0;
};
struct Pause {
    std::chrono::milliseconds duration;
};
struct WaitForRelease {
    std::string gate;
};
struct Silence {};
struct Stall {};
struct ShutdownWrite {};
struct Close {};
struct Reset {};
}  // namespace step

using Step =
    std::variant<step::ReadRequest, step::ReadBytes, step::Send, step::Pause, step::WaitForRelease,
                 step::Silence, step::Stall, step::ShutdownWrite, step::Close, step::Reset>;

/// What the server does on a connection, step by step:
///
///     Script().send("HTTP/1.1 201").pause(50ms).reset()
///
/// At the end of a script the connection stays open and the server goes on with the next request on
/// it. Whatever the step, a script ends when the peer is gone; a peer that has shut down its
/// writing side counts as gone once the server has read what it sent. A plain value.
class Script {
  public:
    static constexpr std::size_t kUncapped = std::numeric_limits<std::size_t>::max();

    Script() = default;
    /// Sends these bytes: a response stands for the script that gives it.
    Script(std::string bytes) { send(std::move(bytes)); }
    Script(const char* bytes) : Script(std::string(bytes)) {}

    /// Reads a whole request and records it. A script for a request does not need it: there the
    /// request has been read already.
    Script& readRequest();
    /// Reads exactly so many bytes, and records no request.
    Script& readBytes(std::size_t count);
    Script& send(std::string bytes);
    /// Sends the bytes one at a time, each in a segment of its own.
    Script& drip(std::string bytes, std::chrono::milliseconds interval);
    /// Sends the bytes over and over until the peer goes away or `cap` bytes in all are sent. With
    /// an interval it is one round of them at a time, without as fast as the peer takes them.
    Script& sendEndlessly(std::string bytes, std::size_t cap = kUncapped,
                          std::chrono::milliseconds interval = std::chrono::milliseconds::zero());
    Script& pause(std::chrono::milliseconds duration);
    /// Goes on when the test calls HostileServer::release() with this name, or if it already has.
    Script& waitForRelease(std::string gate);
    /// Says nothing and reads on until the peer closes. Nothing can follow.
    Script& silence();
    /// Says nothing and reads nothing, so that a peer with much to send is stuck. Nothing can
    /// follow.
    Script& stall();
    /// Sends the FIN and goes on, so that it can still read.
    Script& shutdownWrite();
    /// Closes with a FIN, after reading what has arrived (unread bytes would make it a RST).
    Script& close();
    /// Closes with a RST.
    Script& reset();

    /// In the order of execution.
    const std::deque<Step>& steps() const { return steps_; }

  private:
    Script& add(Step step);

    std::deque<Step> steps_;
};

}  // namespace orvx::testing
