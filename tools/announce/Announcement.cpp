// One service from its announcement to its withdrawal, on top of the library's asynchronous forms.
// Everything happens on the main thread. The library's threads only post to the loop, and copy
// what they pass; there is no lock.

#include "Announcement.h"

#include <utility>

#include "Answers.h"
#include "Report.h"
#include "ServiceDescriptions.h"

namespace orvx::announce {

using nlohmann::json;
using serviceregistryclient::OrvRegistrationResponse;
using serviceregistryclient::registrationEventToString;

const char* toString(Announcement::State state) {
    static constexpr const char* names[] = {"waiting",   "announcing", "announced", "unreachable",
                                            "lost",      "refused",    "refused",   "withdrawing",
                                            "withdrawn", "left"};
    return names[static_cast<std::size_t>(state)];
}

Announcement::Announcement(EventLoop& loop, const json& description, StateCounts& counts,
                           Changed changed)
    : loop_(loop),
      uri_(description.at("uri")),
      service_(toService(description)),
      counts_(counts),
      changed_(std::move(changed)),
      since_(timestamp()) {
    ++counts_[state_];
}

/// The library keeps the entry, or tries to.
bool Announcement::isLive() const {
    return state_ == State::Announcing || state_ == State::Announced ||
           state_ == State::Unreachable || state_ == State::Lost;
}

void Announcement::announce(Client& client, const common::ServiceInfo& registry) {
    if (isLive() || state_ == State::Withdrawing || !unhealthy_.empty()) {
        return;
    }
    registerAt(client, registry);
}

void Announcement::change(const json& description, Client& client,
                          const common::ServiceInfo& registry) {
    service_ = toService(description);
    unhealthy_.clear();
    if (isLive()) {
        const Client::UnregisterHandle unregisterOld = unregister_;
        registerAt(client, registry);
        unregisterOld(nullptr);
    }
}

void Announcement::registerAt(Client& client, const common::ServiceInfo& registry) {
    // A registration that ended had an event, unless no request was made for it.
    lastOldId_ = known_.requestId;
    enter(State::Announcing, "announcing");
    unregister_ = client.registerServiceAtRegistry(
        registry, service_,
        [this, number = ++registrations_](const OrvRegistrationResponse& outcome) {
            loop_.post([=] {
                if (number == registrations_) {
                    answered(outcome);
                }
            });
        });
}

void Announcement::refuse(const std::string& reason) {
    enter(State::Refused, "refused", {{"reason", reason}});
}

/// The response is absent where the registry was not asked.
void Announcement::answered(const OrvRegistrationResponse& outcome) {
    if (outcome.status != OrvRegistrationResponse::OK && isLive()) {
        enter(outcome.httpResponse ? State::Clearing : State::Refused, "refused",
              {{"reason", toText(outcome)}});
    }
}

void Announcement::retract() {
    if (isLive()) {
        const std::string reason = reason_;
        enter(State::Withdrawing, "withdrawing");
        reason_ = reason;  // what keeps it from being confirmed keeps it from being withdrawn
        unregister_(nullptr);
    }
}

void Announcement::setHealth(const std::string& reason) {
    unhealthy_ = reason;
    if (reason.empty()) {
        tell("healthy", json::object());
    } else {
        tell("unhealthy", {{"reason", reason}});
        retract();
    }
}

void Announcement::withdraw() {
    if (state_ == State::Waiting) {
        enter(State::Withdrawn, "withdrawn");
    }
    retract();
    if (state_ != State::Clearing && state_ != State::Withdrawing) {
        return;
    }
    unregister_([this](const OrvRegistrationResponse& outcome) {
        if (outcome.status != OrvRegistrationResponse::OK) {
            loop_.post([=] {
                reason_ = outcome.httpResponse ? toText(outcome) : reason_;
                giveUp();
            });
        }
    });
}

void Announcement::giveUp() {
    if (state_ == State::Clearing || state_ == State::Withdrawing) {
        enter(State::Left, "left", {{"reason", reason_.empty() ? "no answer" : reason_}});
    }
}

void Announcement::findNothingSent() {
    if (state_ == State::Withdrawing || state_ == State::Left) {
        enter(State::Withdrawn, "withdrawn");
    }
}

void Announcement::take(const Event& event) {
    const Status& told = event.status;
    if (told.requestId <= lastOldId_) {
        return;
    }
    take(told);
    const std::string name = registrationEventToString(event.kind);
    switch (event.kind) {
        case Event::Kind::Announced:
            if (isLive()) {
                uuid_ = told.uuid;
                ++timesAnnounced_;
                announcedSince_ = timestamp();
                enter(State::Announced, name, {{"uuid", uuid_}});
            }
            break;
        case Event::Kind::Lost:
            if (isLive()) {
                enter(State::Lost, name, {{"uuid", std::exchange(uuid_, "")}});
            }
            break;
        case Event::Kind::Unreachable:
            if (state_ != State::Announcing || !isRefusal(*told.lastFailure)) {
                enter(state_ == State::Announced ? State::Unreachable : state_, name,
                      {{"reason", told.lastFailure->text}});
            }
            break;
        case Event::Kind::Reachable:
            enter(state_ == State::Unreachable ? State::Announced : state_, name);
            break;
        case Event::Kind::Withdrawn:
            if (state_ == State::Clearing) {
                enter(State::Refused, "", {{"reason", reason_}});
            } else if (state_ == State::Withdrawing || state_ == State::Left) {
                enter(State::Withdrawn, name);
            }
    }
}

void Announcement::take(const Status& status) {
    if (status.requestId > lastOldId_ && status.requestId >= known_.requestId) {
        known_ = status;
    }
}

bool Announcement::isConfirmedSince(std::chrono::system_clock::time_point when) const {
    return (state_ == State::Announced || state_ == State::Unreachable) && known_.lastConfirmed &&
           *known_.lastConfirmed >= when;
}

json Announcement::status() const {
    json status{{"service", service_->getName()},
                {"uri", uri_},
                {"state", toString(state_)},
                {"since", since_},
                {"timesAnnounced", timesAnnounced_}};
    const auto set = [&status](const char* key, const std::string& text) {
        if (!text.empty()) {
            status[key] = text;
        }
    };
    set("unhealthy", unhealthy_);
    set("announcedSince", announcedSince_);
    set("uuid", uuid_);
    set("reason", reason_);
    if (known_.lastConfirmed) {
        status["lastConfirmed"] = timestamp(*known_.lastConfirmed);
    }
    if (known_.lastFailure) {
        status["lastFailure"] = toJson(*known_.lastFailure);
    }
    if (isLive() || state_ == State::Withdrawing) {
        status["attempts"] = known_.attempts;
        set("nextAttempt", known_.nextAttempt ? timestamp(*known_.nextAttempt) : "");
    }
    return status;
}

void Announcement::enter(State state, const std::string& event, const json& details) {
    if (state != state_) {
        --counts_[state_];
        ++counts_[state];
        state_ = state;
        since_ = timestamp();
    }
    reason_ = details.value("reason", "");
    tell(event, details);
}

void Announcement::tell(const std::string& event, json details) const {
    details["service"] = service_->getName();
    details["uri"] = uri_;
    changed_(event, details);
}

}  // namespace orvx::announce
