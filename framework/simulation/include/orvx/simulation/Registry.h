#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/simulation/World.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace orvx::simulation {

/// A registry in a simulated world that answers by itself. Use it to test how a service behaves
/// when its registry loses entries, refuses requests or cannot be reached. To control single
/// answers and their order, do not use this class: answer with World::takeRequest().
///
/// It answers for every registry that the clients of the world use, whatever the host and port.
///
/// A PUT makes or replaces the entry of its path and is answered 201 with a Location. A HEAD or
/// DELETE of an entry is answered 200, or 404 if the entry is unknown. A HEAD of "/" is answered
/// 200.
///
/// Thread-safety: none. It is used on the test's thread, not from callbacks; the world must outlive
/// it.
class Registry {
  public:
    /// From now on advance() and settle() answer all requests in this world.
    explicit Registry(World& world);

    /// Advances the world's clock by `duration`, from timer to timer; zero and less do not move it.
    /// Meanwhile, and before it returns, every request is answered at once and every callback is
    /// run. Throws std::logic_error if the clock does not advance because tasks fall due again and
    /// again, as with a check interval of zero without resilience.
    void advance(std::chrono::milliseconds duration);
    /// Answers all requests and runs all queued tasks, without advancing the clock.
    void settle() { advance(std::chrono::milliseconds(0)); }

    /// Whether there is an entry for this path, which begins with "/": "/" and the service's name,
    /// or the service's uri, to which a "/" is added if it begins with none.
    bool holds(const std::string& path) const { return entries_.count(path) > 0; }
    /// The description that was registered under this path, as JSON; empty if there is no entry.
    std::string description(const std::string& path) const;
    /// The number of entries.
    std::size_t entries() const { return entries_.size(); }

    /// Removes the entry for this path, as a registry that lost it. A client notices with its next
    /// check.
    void forget(const std::string& path) { entries_.erase(path); }
    /// Removes all entries, as a restarted registry does; see forget().
    void forgetAll() { entries_.clear(); }

    /// From now on every request is answered with `outcome` and changes nothing. If `method` is
    /// given ("PUT", "HEAD" or "DELETE"), this applies to that method only. The outcome is a
    /// refusal such as HttpResponse(HttpResponse::StatusCode::ServiceUnavailable, "", ""), or a
    /// network failure such as HttpResponse(CommunicationStatus::ConnectFailed). It lasts until
    /// works() or the next fails(). The entries are kept.
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
