#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClient.h>
#include <serviceregistryclient/RegistrationStatus.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "EventLoop.h"

namespace orvx::announce {

/// One service at the registry, from its announcement to its withdrawal. The library repeats
/// both requests until they succeed; this class tracks the state that the library reports.
/// A refused or withdrawn service may be announced again.
/// Thread-safety: none; callbacks of the library are posted to the loop. While the loop runs, it
/// may be destroyed in the states Waiting, Refused and Withdrawn, but not after withdraw().
class Announcement {
  public:
    using Client = serviceregistryclient::IOrvServiceRegistryClient;
    using Event = serviceregistryclient::RegistrationEvent;
    using Status = serviceregistryclient::RegistrationStatus;

    enum class State {
        Waiting,      ///< before announce()
        Announcing,   ///< the registry has not confirmed the entry yet
        Announced,    ///< the registry has the entry
        Unreachable,  ///< it was announced, and the last check failed
        Lost,         ///< the registry has lost the entry; the library announces it again
        Clearing,     ///< refused; the library deletes the entry of an earlier attempt, if any
        Refused,      ///< the registry has refused it and has no entry
        Withdrawing,  ///< withdraw() was called
        Withdrawn,    ///< the registry has no entry
        Left,         ///< the withdrawal was given up; an entry may be left
    };
    /// The number of services in each state; shared by all announcements.
    using StateCounts = std::map<State, std::size_t>;
    /// Called on the loop's thread after each change, with the event and its details. The event is
    /// empty for a change that is not shown to users.
    using Changed = std::function<void(const std::string& event, const nlohmann::json& details)>;

    /// `loop` and `counts` must outlive it.
    Announcement(EventLoop& loop, const nlohmann::json& description, StateCounts& counts,
                 Changed changed);
    ~Announcement() { --counts_[state_]; }
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

    /// Registers the service, unless it is announced, is being withdrawn, or is unhealthy.
    /// `client` must outlive the loop's run.
    void announce(Client& client, const common::ServiceInfo& registry);
    /// Replaces the description; the uri must be the same. An announced service is registered again
    /// at once, and its entry exists throughout; any other one with the next announce(). Call
    /// updateStatus() with the library's current status first.
    void change(const nlohmann::json& description, Client& client,
                const common::ServiceInfo& registry);
    /// Enters Refused because of an error in this process.
    void refuse(const std::string& reason);
    /// Withdraws the service, or the entry that an earlier attempt of a refused service may have
    /// left.
    void withdraw();
    /// Withdraws the service until the next announce(), without a time limit.
    void retract();
    /// Takes the result of the health checks: an empty reason for a healthy service. An unhealthy
    /// one is retracted.
    void setHealth(const std::string& reason);
    /// The service counts as healthy again, without an event: its checks begin anew.
    void forgetHealth() { healthProblem_.clear(); }
    /// Enters Left if the withdrawal has not succeeded. A later success still enters Withdrawn.
    void giveUp();
    /// Enters Withdrawn, because no request was ever sent and the registry has no entry.
    void confirmNothingSent();

    /// Call it with each of the library's events about this uri, in order.
    void handleEvent(const Event& event);
    /// Call it with the library's current status of this uri.
    void updateStatus(const Status& status);
    /// The state and the details that explain it.
    nlohmann::json status() const;
    /// Whether the registry has confirmed the entry since then and has not lost it.
    bool isConfirmedSince(std::chrono::system_clock::time_point when) const;
    State state() const { return state_; }

  private:
    bool isLive() const;
    void registerAt(Client& client, const common::ServiceInfo& registry);
    void handleOutcome(const serviceregistryclient::OrvRegistrationResponse& outcome);
    void enter(State state, const std::string& event,
               const nlohmann::json& details = nlohmann::json::object());
    void notify(const std::string& event, nlohmann::json details) const;

    EventLoop& loop_;
    const std::string uri_;
    std::shared_ptr<common::ServiceCreate> service_;
    StateCounts& counts_;
    const Changed changed_;

    State state_ = State::Waiting;
    std::string since_;
    std::string announcedSince_;
    std::string uuid_;
    /// Why the service is not confirmed, is refused or is left; empty if none of these applies.
    std::string reason_;
    /// Why the service is unhealthy; empty if it is healthy or not checked.
    std::string healthProblem_;
    std::uint64_t timesAnnounced_ = 0;
    Status libraryStatus_;
    /// Events up to this request id belong to registrations before the last one.
    std::uint64_t lastPreviousId_ = 0;
    /// Identifies outcomes of earlier registrations, which are ignored.
    unsigned registrationCount_ = 0;
    Client::UnregisterHandle unregister_;
};

const char* toString(Announcement::State state);

}  // namespace orvx::announce
