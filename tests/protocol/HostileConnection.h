#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

#include "Http.h"
#include "Loopback.h"
#include "Script.h"

namespace orvx::testing {

/// The part of the server that a connection uses.
class IScriptSource {
  public:
    virtual void record(const Request& request) = 0;
    /// The script for this request, which was read.
    virtual Script scriptFor(const Request& request) = 0;
    virtual bool isReleased(const std::string& gate) = 0;

  protected:
    ~IScriptSource() = default;
};

/// Carries out scripts on one accepted connection, without ever blocking: the server polls for
/// events() until due() and calls run(). Used by the server's thread only.
class HostileConnection {
  public:
    using Clock = std::chrono::steady_clock;
    enum class State { Open, ClosedByPeer, ClosedByServer };

    /// Takes a non-blocking socket. `source` must outlive the connection.
    HostileConnection(Socket socket, std::size_t index, const Script& script,
                      IScriptSource& source);

    /// Carries out steps until one has to wait. `revents` is the result of poll().
    void run(short revents);

    int fd() const { return socket_.fd(); }
    /// The events to wait for, as for poll().
    short events() const { return events_; }
    /// The time at which to call run() even without an event.
    std::optional<Clock::time_point> due() const { return due_; }
    State state() const { return state_; }

  private:
    enum class Outcome { Done, Waiting, PeerGone, Closed };

    bool hasCause(short revents) const;
    Outcome next();
    Outcome serve();

    Outcome perform(step::ReadRequest& step);
    Outcome perform(step::ReadBytes& step);
    Outcome perform(step::Send& step);
    Outcome perform(step::Pause& step);
    Outcome perform(step::WaitForRelease& step);
    Outcome perform(step::Silence& step);
    Outcome perform(step::Stall& step);
    Outcome perform(step::ShutdownWrite& step);
    Outcome perform(step::Close& step);
    Outcome perform(step::Reset& step);

    Outcome readRequest(Request& request);
    Outcome readSome(std::size_t limit);
    Outcome wait(short events);
    bool isDue() const { return !due_ || *due_ <= Clock::now(); }

    const Socket socket_;
    const std::size_t index_;
    IScriptSource& source_;
    std::deque<Step> steps_;
    std::string input_;
    short events_ = 0;
    std::optional<Clock::time_point> due_;  // the time of the current step
    State state_ = State::Open;
};

}  // namespace orvx::testing
