#pragma once

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "EventLoop.h"

namespace orvx::announce {

/// What all announcements have in common.
struct AnnouncementSettings {
    common::ServiceInfo registry;
    communication::HttpConfig http;
    std::chrono::seconds checkInterval;
    std::chrono::milliseconds checkTimeout;
    std::chrono::milliseconds retryInterval;
};

/// One service at the registry, with a library context of its own: a check of another service that
/// times out does not end this one's.
/// Thread-safety: none; what the library calls back with is posted to the loop first. It must end
/// before the loop does, and not while the loop runs.
class Announcement {
  public:
    enum class State {
        Waiting,      ///< start() was not called yet
        Announcing,   ///< the registry has not answered yet
        Announced,    ///< the registry has the entry
        Lost,         ///< the registry has lost it; the library announces it again
        Refused,      ///< the registry does not want it
        Withdrawing,  ///< withdraw() was called
        Withdrawn,    ///< the registry has no entry
        Left,         ///< it was given up; an entry may be left
    };
    /// How many services are in each state; shared by all announcements.
    using StateCounts = std::map<State, std::size_t>;
    /// Called on the loop's thread after each change with "event", which is the state in most
    /// cases, and what belongs to it.
    using Changed = std::function<void(const std::string& event, const nlohmann::json& details)>;

    /// `settings` and `counts` must outlive it.
    Announcement(EventLoop& loop, const AnnouncementSettings& settings,
                 const nlohmann::json& description, StateCounts& counts, Changed changed);
    ~Announcement();
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

    void start();
    /// Starts anew what the registry has refused.
    void startAgainIfRefused();
    /// Starts anew when the library has ended the periodic check, as it does behind a check that is
    /// not answered in time. To be called now and then.
    void keepChecked();
    /// Asks again as long as it is refused; isOver() tells when it is done.
    void withdraw();
    /// What is not withdrawn is not waited for any more: it is left behind, unless the registry
    /// takes the withdrawal after all.
    void giveUp();

    State state() const { return state_; }
    /// Nothing will change by itself.
    bool isOver() const;
    /// All that is known, for a person who wants to know why.
    nlohmann::json status() const;

  private:
    using Outcome = serviceregistryclient::OrvRegistrationResponse;
    using Model = std::shared_ptr<const common::ServiceModel>;

    /// A callback for the library that has a member called on the loop, unless there was another
    /// start() meanwhile.
    template <typename Member>
    auto onLoop(Member member);
    void openContext();
    void answered(const Outcome& outcome);
    void notified(const Model& service, bool isRegistered);
    void askForWithdrawal();
    void withdrawalAnswered(const Outcome& outcome);
    /// What was given up too, for as long as there is time.
    bool isToBeWithdrawn() const { return state_ == State::Withdrawing || state_ == State::Left; }
    void enter(State state, const nlohmann::json& details = nlohmann::json::object());
    void report(const std::string& event, nlohmann::json details);

    EventLoop& loop_;
    const AnnouncementSettings& settings_;
    const std::shared_ptr<common::ServiceCreate> service_;
    StateCounts& counts_;
    const Changed changed_;
    const std::shared_ptr<communication::ClientStatistics> statistics_;

    State state_ = State::Waiting;
    std::string since_;
    std::string announcedSince_;
    std::string uuid_;
    std::string registrySaid_;
    std::uint64_t timesAnnounced_ = 0;
    /// When the number of checks was last seen to change, and the number.
    std::pair<EventLoop::Clock::time_point, std::uint64_t> lastCheck_;
    EventLoop::Clock::time_point withdrawalBegin_;
    /// Before the next request for the withdrawal; doubled by each.
    std::chrono::milliseconds withdrawalPause_{0};
    unsigned long start_ = 0;
    serviceregistryclient::IOrvServiceRegistryClient::UnregisterHandle unregister_;
    std::unique_ptr<serviceregistryclient::OrvServiceRegistryContext> context_;
};

const char* toString(Announcement::State state);

}  // namespace orvx::announce
