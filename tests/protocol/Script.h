#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <limits>
#include <string>
#include <utility>
#include <variant>

namespace orvx::testing {

/// The steps of a Script. Tests build them with Script.
namespace step {
struct ReadRequest {};
struct ReadBytes {
    std::size_t count;
};
struct Send {
    std::string bytes;
    std::size_t left;  // bytes that are left to be sent; `bytes` is repeated as needed
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

/// The actions of the server on a connection, step by step:
///
///     Script().send("HTTP/1.1 201").pause(50ms).reset()
///
/// After a script the connection stays open, and the server continues with the next request. A
/// script ends when the peer is gone. A peer that has shut down its writing side counts as gone
/// when the server has read all its bytes. A plain value.
class Script {
  public:
    static constexpr std::size_t kUncapped = std::numeric_limits<std::size_t>::max();

    Script() = default;
    /// Sends these bytes, so that a response can be used as a script.
    Script(std::string bytes) { send(std::move(bytes)); }
    Script(const char* bytes) : Script(std::string(bytes)) {}

    /// Reads a whole request and records it. The script of a request does not need this step: the
    /// request was read already.
    Script& readRequest();
    /// Reads exactly this many bytes, and records no request.
    Script& readBytes(std::size_t count);
    Script& send(std::string bytes);
    /// Sends the bytes one at a time, each in its own segment.
    Script& drip(std::string bytes, std::chrono::milliseconds interval);
    /// Sends the bytes repeatedly until the peer is gone or `cap` bytes were sent. With an interval
    /// it sends them once in each interval, without one as fast as the peer reads.
    Script& sendEndlessly(std::string bytes, std::size_t cap = kUncapped,
                          std::chrono::milliseconds interval = std::chrono::milliseconds::zero());
    Script& pause(std::chrono::milliseconds duration);
    /// Continues when the test calls HostileServer::release() with this name, or has called it
    /// before.
    Script& waitForRelease(std::string gate);
    /// Sends nothing and reads until the peer closes. Must be the last step.
    Script& silence();
    /// Sends and reads nothing, so that a peer with much to send is blocked. Must be the last step.
    Script& stall();
    /// Sends the FIN and continues, so that it can still read.
    Script& shutdownWrite();
    /// Closes with a FIN, after reading all bytes that have arrived. Unread bytes would cause a
    /// RST.
    Script& close();
    /// Closes with a RST.
    Script& reset();

    /// The steps in the order of execution.
    const std::deque<Step>& steps() const { return steps_; }

  private:
    Script& add(Step step);

    std::deque<Step> steps_;
};

}  // namespace orvx::testing
