// With resilience: answers to the check of an entry, its time-out, and the effect of one answer on
// the other entries at that registry. Entered by the timer's thread and the I/O thread. Each entry
// has a check of its own. A late answer is recognised by the number of its request.

#include "Memory.h"
#include "ResilientRecords.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;
using communication::HttpResponse;
using State = RegistrationStatus::State;
using Kind = RegistrationEvent::Kind;

namespace {

bool isGone(const HttpResponse& response) {
    const int status = static_cast<int>(response.getStatusCode());
    return status == 404 || status == 410;
}

bool isSuccess(const HttpResponse& response) {
    const int status = static_cast<int>(response.getStatusCode());
    return status >= 200 && status < 300;
}

}  // namespace

void OrvServiceRegistryClient::ResilientUpkeep::handleHead(const std::shared_ptr<Entry>& entry,
                                                           std::uint32_t number,
                                                           const HttpResponse& response) {
    handle(entry, number, response, [&] {
        lockIsHeld();
        Milliseconds due = now();
        if (isGone(response)) {
            markLostLocked(*entry, response);
            checkAllLocked(entry->endpoint, entry.get());
        } else {
            if (isSuccess(response)) {
                for (Member* const member : entry->members) {
                    member->second.facts.confirmed = now();
                    Upkeep::succeedLocked(member->first, *member->second.request,
                                          member->second.facts);
                }
                due += checkInterval();
            } else {
                failLocked(*entry, "HEAD", response);
                due = dueAfterNoAnswerLocked(*entry);
            }
            due = std::max(due, entry->notBefore);
        }
        entry->outstanding = Request::None;
        planLocked(*entry, due);
        reconcileLocked(*entry, &response);
    });
}

/// The check has timed out; a late answer is ignored.
void OrvServiceRegistryClient::ResilientUpkeep::giveUpHeadLocked(Entry& entry) {
    const HttpResponse silence(CommunicationStatus::TimedOut,
                               "no answer from " + entry.endpoint.info->getKey() + " in time");
    failLocked(entry, "HEAD", silence);
    entry.endpoint.isAnswering = false;
    entry.outstanding = Request::None;
    planLocked(entry, dueAfterNoAnswerLocked(entry));
}

std::chrono::milliseconds OrvServiceRegistryClient::ResilientUpkeep::dueAfterNoAnswerLocked(
    const Entry& entry) const {
    return now() + (entry.mustRecheck ? randomPartOf(std::min(kShortestSpread, checkInterval()))
                                      : checkInterval());
}

void OrvServiceRegistryClient::ResilientUpkeep::markLostLocked(Entry& entry,
                                                               const HttpResponse& response) {
    const auto reason = RegistrationFacts::failureOf("HEAD", response, now());
    for (Member* const member : entry.members) {
        Registration& registration = member->second;
        registration.request->serviceCreate->setUri("");
        registration.request->serviceCreate->setId("");
        notifyLocked(*member, false);
        Upkeep::succeedLocked(member->first, *registration.request, registration.facts);
        registration.facts.failure = reason;
        if (!registration.withdrawn) {
            enterLocked(member->first, *registration.request, registration.facts, State::Lost,
                        Kind::Lost);
        }
        if (client_.logger->isInfoEnabled()) {
            client_.logger->logInfo(false)
                << "automatic re-register with request: " << *registration.request->uri;
        }
    }
    entry.known = Known::Absent;
    entry.held = 0;
    forgetUuidLocked(entry);
}

/// The first answer after a failure makes all entries due, at most once in an interval: a network
/// that loses single answers must not multiply the checks.
void OrvServiceRegistryClient::ResilientUpkeep::recordReachabilityLocked(
    Entry& entry, const HttpResponse& response) {
    Endpoint& endpoint = entry.endpoint;
    switch (response.getCommunicationStatus()) {
        case CommunicationStatus::Ok:
            if (!endpoint.isAnswering && now() - checkInterval() >= endpoint.lastRecovery) {
                endpoint.lastRecovery = now();
                checkAllLocked(endpoint, &entry);
            }
            endpoint.isAnswering = true;
            break;
        case CommunicationStatus::InvalidRequest:
        case CommunicationStatus::NoSession:
        case CommunicationStatus::Abandoned:
        case CommunicationStatus::OutOfMemory:
            break;  // says nothing about the registry
        default:
            endpoint.isAnswering = false;
    }
}

/// Makes every entry due once, at a random moment within a time that grows with the number of
/// entries. If this happens again within an interval, the pause grows each time: the registry
/// stores nothing, or it answers before it has loaded its entries.
void OrvServiceRegistryClient::ResilientUpkeep::checkAllLocked(Endpoint& endpoint,
                                                               const Entry* except) {
    const Milliseconds time = now();
    if (time < endpoint.checkAllUntil) {
        return;
    }
    const Milliseconds spread = std::max(
        kShortestSpread, kSpreadPerEntry * static_cast<Milliseconds::rep>(endpoint.byPath.size()));
    const bool isFirst = time - checkInterval() >= endpoint.checkAllUntil;
    endpoint.checkAllPause = isFirst ? Milliseconds::zero()
                                     : std::clamp(2 * endpoint.checkAllPause, kShortestSpread,
                                                  std::max(kShortestSpread, checkInterval()));
    endpoint.checkAllUntil = time + spread + endpoint.checkAllPause;
    const auto makeDue = [&](Entry& entry) {
        lockIsHeld();
        if (entry.outstanding == Request::Head) {
            entry.mustRecheck = true;
        } else if (&entry != except && entry.outstanding == Request::None) {
            const Milliseconds soon = std::max(time + randomPartOf(spread), entry.notBefore);
            planLocked(entry, std::min(entry.due->first, soon));
        }
    };
    for (const auto& entry : endpoint.byUuid) {
        makeDue(*entry);
    }
    // An entry to which several paths lead is due at the earliest of its moments.
    for (const auto& [path, entry] : endpoint.byPath) {
        const auto withUuid = endpoint.byUuid.find(entry->uuid);
        const bool isDueAlready = withUuid != endpoint.byUuid.end() && *withUuid == entry;
        if (!isDueAlready) {
            makeDue(*entry);
        }
    }
}

/// The head time-out, limited to a range that cannot overflow the clock.
std::chrono::milliseconds OrvServiceRegistryClient::ResilientUpkeep::headTimeout() const {
    return std::clamp(client_.context.getHeadTimeout(), kShortestPause,
                      RegistrationFacts::kLongest);
}

/// The check interval, limited to a range that cannot overflow the clock.
std::chrono::milliseconds OrvServiceRegistryClient::ResilientUpkeep::checkInterval() const {
    return std::clamp(client_.checkDelay(), kShortestPause, RegistrationFacts::kLongest);
}

/// A random duration from zero to `duration`, uniformly distributed. Below 10 ms, the minimum of a
/// back-off, it is not.
std::chrono::milliseconds OrvServiceRegistryClient::ResilientUpkeep::randomPartOf(
    Milliseconds duration) {
    const auto twice = static_cast<std::uint64_t>(2 * duration.count());
    const Milliseconds delay =
        communication::QunaConnectionBackoffSequence(0, twice).nextDelay() - duration;
    return std::min(delay, duration);
}

}  // namespace orvx::serviceregistryclient
