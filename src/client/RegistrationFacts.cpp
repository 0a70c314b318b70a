// The status for getRegistrations() and the events for the registration listener, with or without
// resilience. Entered by every thread that enters the client, under its lock.

#include "Upkeep.h"

#include <orvx/communication/CommunicationStatus.h>

#include <algorithm>
#include <string_view>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;
using communication::HttpResponse;
using std::chrono::milliseconds;
using std::chrono::system_clock;
using Kind = RegistrationEvent::Kind;
using State = RegistrationStatus::State;

namespace {

/// The length up to which an answer's body is kept for human readers.
constexpr std::size_t kLongestBody = 200;

}  // namespace

system_clock::time_point OrvServiceRegistryClient::Upkeep::Clocks::timeOf(milliseconds time) const {
    return system + (time - timer);
}

std::optional<system_clock::time_point> OrvServiceRegistryClient::Upkeep::Clocks::timeUnlessNone(
    milliseconds time) const {
    return time == RegistrationFacts::kNone ? std::nullopt : std::optional(timeOf(time));
}

OrvServiceRegistryClient::Upkeep::Clocks OrvServiceRegistryClient::Upkeep::readClocks() const {
    return {now(), std::chrono::floor<milliseconds>(client_.timer.systemNow())};
}

std::shared_ptr<const RegistrationFacts::Failure> RegistrationFacts::failureOf(
    const char* method, const HttpResponse& response, milliseconds now) {
    const CommunicationStatus status = response.getCommunicationStatus();
    const int httpStatus = static_cast<int>(response.getStatusCode());
    std::string text = std::string(method) + ": ";
    if (status == CommunicationStatus::Ok) {
        text += "HTTP status " + std::to_string(httpStatus);
        const bool isSuccess = httpStatus == 200 || httpStatus == 201;
        if (isSuccess && method == std::string_view("PUT")) {
            text += " without a usable Location";
        }
    } else {
        text += communicationStatusToString(status);
    }
    const std::string& more =
        status == CommunicationStatus::Ok ? response.getBody() : response.getCause();
    if (!more.empty()) {
        text += ": " + more.substr(0, kLongestBody);
    }
    return std::make_shared<const Failure>(Failure{now, status, httpStatus, std::move(text)});
}

// The event is queued before the facts change: if there is no memory for it, nothing has changed,
// and the repeated step reports it.

void OrvServiceRegistryClient::Upkeep::succeedLocked(std::uint64_t id,
                                                     const RequestContainer& request,
                                                     RegistrationFacts& facts) {
    RegistrationFacts next = facts;
    next.attempts = 0;
    if (std::exchange(next.failing, false)) {
        if (next.state == State::Unreachable) {
            next.enter(State::Announced, now());
        }
        reportLocked(id, request, next, Kind::Reachable);
    }
    facts = std::move(next);
}

void OrvServiceRegistryClient::Upkeep::failLocked(
    std::uint64_t id, const RequestContainer& request, RegistrationFacts& facts,
    std::shared_ptr<const RegistrationFacts::Failure> failure) {
    RegistrationFacts next = facts;
    next.failure = std::move(failure);
    if (next.state == State::Announced) {
        next.enter(State::Unreachable, now());
    }
    if (!std::exchange(next.failing, true)) {
        reportLocked(id, request, next, Kind::Unreachable);
    }
    facts = std::move(next);
}

void OrvServiceRegistryClient::Upkeep::enterLocked(std::uint64_t id,
                                                   const RequestContainer& request,
                                                   RegistrationFacts& facts, State state,
                                                   Kind event) {
    RegistrationFacts next = facts;
    if (next.enter(state, now())) {
        reportLocked(id, request, next, event);
    }
    facts = std::move(next);
}

void OrvServiceRegistryClient::Upkeep::reportLocked(std::uint64_t id,
                                                    const RequestContainer& request,
                                                    const RegistrationFacts& facts, Kind event) {
    queueTasksLocked(eventLocked(id, request, facts, event));
}

OrvServiceRegistryClient::Tasks OrvServiceRegistryClient::Upkeep::eventLocked(
    std::uint64_t id, const RequestContainer& request, const RegistrationFacts& facts,
    Kind event) const {
    Tasks tasks;
    if (client_.registrationListener) {
        tasks.emplace_back(
            [listener = client_.registrationListener,
             told = RegistrationEvent{event, statusLocked(id, request, facts, readClocks())}] {
                (*listener)(told);
            });
    }
    return tasks;
}

RegistrationStatus OrvServiceRegistryClient::Upkeep::statusLocked(std::uint64_t id,
                                                                  const RequestContainer& request,
                                                                  const RegistrationFacts& facts,
                                                                  const Clocks& clocks) const {
    RegistrationStatus status;
    status.requestId = id;
    status.name = request.serviceCreate->getName();
    status.uri = *request.uri;
    status.endpoint = request.serviceInfo->getKey();
    status.uuid = request.serviceCreate->getId();
    status.state = facts.state;
    status.since = clocks.timeOf(facts.since);
    status.lastConfirmed = clocks.timeUnlessNone(facts.confirmed);
    if (facts.failure) {
        status.lastFailure = RegistrationStatus::Failure{
            clocks.timeOf(facts.failure->time), facts.failure->communicationStatus,
            facts.failure->httpStatus, facts.failure->text};
    }
    status.attempts = facts.attempts;
    status.nextAttempt = clocks.timeUnlessNone(facts.due);
    return status;
}

}  // namespace orvx::serviceregistryclient
