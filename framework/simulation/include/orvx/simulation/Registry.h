#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/simulation/World.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace orvx::simulation {

/// A registry in a simulated world, which answers by itself: the short way to test what a service
/// does when its registry forgets it, refuses it or is gone. Where single answers and their order
/// matter, leave it out and answer by hand: World::takeRequest().
///
/// It stands for every registry that the clients of the world talk to, whatever their host and
/// port.
///
/// A PUT makes or replaces the entry of its path and is answered 201 with a Location; a HEAD of an
/// entry is answered 200, a DELETE 200, and both 404 when the entry is unknown. A HEAD of "/" is
/// answered 200.
///
/// Thread-safety: none. It is used on the test's thread, not from callbacks; the world must outlive
/// it.
class Registry {
  public:
    /// Answers whatever is asked in this world from now on, in advance() and settle().
    explicit Registry(World& world);

    /// Turns the world's clock by `duration` (nothing and less: not at all), from timer to timer.
    /// Meanwhile, and before it returns, every request is answered at once and every callback is
    /// run. Throws std::logic_error when the clock does not get on: something is due again and
    /// again, as with a check interval of zero.
    void advance(std::chrono::milliseconds duration);
    /// Answers what was asked and runs what is queued, without turning the clock.
    void settle() { advance(std::chrono::milliseconds(0)); }

    /// Whether it has an entry for this path: "/" and the service's name, or the service's uri.
    bool holds(const std::string& path) const { return entries_.count(path) > 0; }
    /// What was announced under this path, as JSON; empty when there is no entry.
    std::string description(const std::string& path) const;
    /// How many entries it holds.
    std::size_t entries() const { return entries_.size(); }

    /// Loses the entry for this path, or all of them, as a restarted registry does. Nobody is told:
    /// a client finds out with its next check.
    void forget(const std::string& path) { entries_.erase(path); }
    /// Loses all entries; see forget().
    void forgetAll() { entries_.clear(); }

    /// From now on every request (of this method: "PUT", "HEAD" or "DELETE", if one is given) gets
    /// this instead, and changes nothing: a refusal such as
    /// HttpResponse(HttpResponse::StatusCode::ServiceUnavailable, "", ""), or a failure of the
    /// network such as HttpResponse(CommunicationStatus::ConnectFailed). Until works(), or another
    /// failure. What it held it holds.
    void fails(communication::HttpResponse outcome, std::string method = "");
    /// Ends the failure; see fails().
    void works() { failure_.reset(); }

  private:
    struct Entry {
        std::string location;
        std::string description;
    };

    void answerAll();
    bool isFailing(const Request& request) const;
    communication::HttpResponse answerTo(const Request& request);
    communication::HttpResponse put(const Request& request);

    World& world_;
    std::map<std::string, Entry> entries_;  ///< By path.
    std::size_t lastUuid_ = 0;
    std::optional<communication::HttpResponse> failure_;
    std::string failingMethod_;
};

}  // namespace orvx::simulation
