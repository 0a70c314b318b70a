// Tracks one service from its announcement to its withdrawal, with the library's asynchronous
// forms. Runs on the main thread. The library's threads only post copies to the loop; there is no
// lock.

#include "Announcement.h"

#include <utility>

#include "Outcome.h"
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

/// Whether the library keeps the entry or tries to create it.
bool Announcement::isLive() const {
    return state_ == State::Announcing || state_ == State::Announced ||
           state_ == State::Unreachable || state_ == State::Lost;
}

void Announcement::announce(Client& client, const common::ServiceInfo& registry) {
    if (isLive() || state_ == State::Withdrawing || !healthProblem_.empty()) {
        return;
    }
    registerAt(client, registry);
}

void Announcement::change(const json& description, Client& client,
                          const common::ServiceInfo& registry) {
    service_ = toService(description);
    if (isLive()) {
        const Client::UnregisterHandle unregisterOld = unregister_;
        registerAt(client, registry);
        unregisterOld(nullptr);
    }
}

void Announcement::registerAt(Client& client, const common::ServiceInfo& registry) {
    // Every registration that ended had an event, unless no request was sent for it.
    lastPreviousId_ = libraryStatus_.requestId;
    enter(State::Announcing, "announcing");
    unregister_ = client.registerServiceAtRegistry(
        registry, service_,
        [this, number = ++registrationCount_](const OrvRegistrationResponse& outcome) {
            loop_.post([=] {
                if (number == registrationCount_) {
                    handleOutcome(outcome);
                }
            });
        });
}

void Announcement::refuse(const std::string& reason) {
    enter(State::Refused, "refused", {{"reason", reason}});
}

/// The outcome has no response if no request was sent.
void Announcement::handleOutcome(const OrvRegistrationResponse& outcome) {
    if (outcome.status != OrvRegistrationResponse::OK && isLive()) {
        enter(outcome.httpResponse ? State::Clearing : State::Refused, "refused",
              {{"reason", toText(outcome)}});
    }
}

void Announcement::retract() {
    if (isLive()) {
        const std::string reason = reason_;
        enter(State::Withdrawing, "withdrawing");
        reason_ = reason;  // the cause that prevented the confirmation prevents the withdrawal, too
        unregister_(nullptr);
    }
}

void Announcement::setHealth(const std::string& reason) {
    healthProblem_ = reason;
    if (reason.empty()) {
        notify("healthy", json::object());
    } else {
        notify("unhealthy", {{"reason", reason}});
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

void Announcement::confirmNothingSent() {
    if (state_ == State::Withdrawing || state_ == State::Left) {
        enter(State::Withdrawn, "withdrawn");
    }
}

void Announcement::handleEvent(const Event& event) {
    const Status& status = event.status;
    if (status.requestId <= lastPreviousId_) {
        return;
    }
    updateStatus(status);
    const std::string name = registrationEventToString(event.kind);
    switch (event.kind) {
        case Event::Kind::Announced:
            if (isLive()) {
                uuid_ = status.uuid;
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
            if (state_ != State::Announcing || !isRefusal(*status.lastFailure)) {
                enter(state_ == State::Announced ? State::Unreachable : state_, name,
                      {{"reason", status.lastFailure->text}});
            }
            break;
        case Event::Kind::Reachable:
            if (state_ == State::Clearing) {
                notify(name, json::object());  // the reason is still that of the refusal
            } else {
                enter(state_ == State::Unreachable ? State::Announced : state_, name);
            }
            break;
        case Event::Kind::Withdrawn:
            if (state_ == State::Clearing) {
                enter(State::Refused, "", {{"reason", reason_}});
            } else if (state_ == State::Withdrawing || state_ == State::Left) {
                enter(State::Withdrawn, name);
            }
    }
}

void Announcement::updateStatus(const Status& status) {
    if (status.requestId > lastPreviousId_ && status.requestId >= libraryStatus_.requestId) {
        libraryStatus_ = status;
    }
}

bool Announcement::isConfirmedSince(std::chrono::system_clock::time_point when) const {
    return (state_ == State::Announced || state_ == State::Unreachable) &&
           libraryStatus_.lastConfirmed && *libraryStatus_.lastConfirmed >= when;
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
    set("unhealthy", healthProblem_);
    set("announcedSince", announcedSince_);
    set("uuid", uuid_);
    set("reason", reason_);
    if (libraryStatus_.lastConfirmed) {
        status["lastConfirmed"] = timestamp(*libraryStatus_.lastConfirmed);
    }
    if (libraryStatus_.lastFailure) {
        status["lastFailure"] = toJson(*libraryStatus_.lastFailure);
    }
    if (isLive() || state_ == State::Withdrawing) {
        status["attempts"] = libraryStatus_.attempts;
        set("nextAttempt",
            libraryStatus_.nextAttempt ? timestamp(*libraryStatus_.nextAttempt) : "");
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
    notify(event, details);
}

void Announcement::notify(const std::string& event, json details) const {
    details["service"] = service_->getName();
    details["uri"] = uri_;
    changed_(event, details);
}

}  // namespace orvx::announce
