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

/// One service at the registry, from its announcement to its withdrawal. The library keeps both
/// until they are done; this class keeps the state that the library tells.
/// It may be announced again when it is refused or withdrawn.
/// Thread-safety: none; what the library calls back with is posted to the loop first. It may end
/// when it is refused, withdrawn or left.
class Announcement {
  public:
    using Client = serviceregistryclient::IOrvServiceRegistryClient;
    using Event = serviceregistryclient::RegistrationEvent;
    using Status = serviceregistryclient::RegistrationStatus;

    enum class State {
        Waiting,      ///< announce() was not called yet
        Announcing,   ///< the registry has not confirmed the entry yet
        Announced,    ///< the registry has the entry
        Unreachable,  ///< it was announced, and the last check failed
        Lost,         ///< the registry has lost the entry; the library announces it again
        Clearing,     ///< refused; the library deletes what an earlier attempt may have left
        Refused,      ///< the registry does not want it, and has no entry
        Withdrawing,  ///< withdraw() was called
        Withdrawn,    ///< the registry has no entry
        Left,         ///< it was given up; an entry may be left
    };
    /// How many services are in each state; shared by all announcements.
    using StateCounts = std::map<State, std::size_t>;
    /// Called on the loop's thread after each change, with the event and its details. The event is
    /// empty where a user need not be told.
    using Changed = std::function<void(const std::string& event, const nlohmann::json& details)>;

    /// `loop` and `counts` must outlive it.
    Announcement(EventLoop& loop, const nlohmann::json& description, StateCounts& counts,
                 Changed changed);
    ~Announcement() { --counts_[state_]; }
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

    /// Registers it, unless it is announced already, is still being withdrawn, or is unhealthy.
    /// `client` must outlive the loop's run.
    void announce(Client& client, const common::ServiceInfo& registry);
    /// Registers it with another description of the same uri: at once where the registry has an
    /// entry, which is not missing in between; otherwise with the next announce(). All that the
    /// library knows must have been taken before.
    void change(const nlohmann::json& description, Client& client,
                const common::ServiceInfo& registry);
    /// It cannot be announced, for a reason of this process.
    void refuse(const std::string& reason);
    /// Withdraws it, or what may have been left of it when it was refused.
    void withdraw();
    /// Withdraws it until it is to be announced again; that may take however long.
    void retract();
    /// Whether it is well, by its health checks: an unhealthy one is retracted. The reason is empty
    /// for a healthy one.
    void setHealth(const std::string& reason);
    /// What is not withdrawn counts as left, until the library has withdrawn it all the same.
    void giveUp();
    /// No request has ever reached the registry: there is no entry to be withdrawn.
    void findNothingSent();

    /// To be called with each event of the library about this service's uri, in order.
    void take(const Event& event);
    /// To be called with what the library knows now.
    void take(const Status& status);
    /// All that is known, for a person who wants to know why.
    nlohmann::json status() const;
    /// Whether the registry has said since then that it has the entry, and nothing else after it.
    bool isConfirmedSince(std::chrono::system_clock::time_point when) const;
    State state() const { return state_; }

  private:
    bool isLive() const;
    void registerAt(Client& client, const common::ServiceInfo& registry);
    void answered(const serviceregistryclient::OrvRegistrationResponse& outcome);
    void enter(State state, const std::string& event,
               const nlohmann::json& details = nlohmann::json::object());
    void tell(const std::string& event, nlohmann::json details) const;

    EventLoop& loop_;
    const std::string uri_;
    std::shared_ptr<common::ServiceCreate> service_;
    StateCounts& counts_;
    const Changed changed_;

    State state_ = State::Waiting;
    std::string since_;
    std::string announcedSince_;
    std::string uuid_;
    /// Why it is not confirmed, refused or left; empty where it is as it should be.
    std::string reason_;
    /// Why it is not healthy; empty where it is, or is not checked.
    std::string unhealthy_;
    std::uint64_t timesAnnounced_ = 0;
    Status known_;
    /// Events up to this request id are about registrations before the last announce().
    std::uint64_t lastOldId_ = 0;
    /// Tells the answers to earlier registrations apart.
    unsigned registrations_ = 0;
    Client::UnregisterHandle unregister_;
};

const char* toString(Announcement::State state);

}  // namespace orvx::announce
