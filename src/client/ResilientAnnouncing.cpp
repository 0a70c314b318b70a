// With resilience: answers to a PUT, and entries that turn out to be the same. Entered by the I/O
// thread.

#include "Memory.h"
#include "ResilientRecords.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>

namespace orvx::serviceregistryclient {

using State = RegistrationStatus::State;
using Kind = RegistrationEvent::Kind;

std::string OrvServiceRegistryClient::ResilientUpkeep::uuidOf(const std::string& location) {
    std::string path = location;
    const std::size_t host = path.find("//");
    if (host != std::string::npos && path.find('/') == host &&
        (host == 0 || path[host - 1] == ':')) {
        path.erase(0, path.find('/', host + 2));
    }
    const std::size_t last = path.rfind('/');
    if (last == std::string::npos) {
        return "";
    }
    if (last + 1 == path.size()) {
        path.pop_back();
    }
    return path.substr(path.rfind('/') + 1);
}

void OrvServiceRegistryClient::ResilientUpkeep::handlePut(const std::shared_ptr<Entry>& entry,
                                                          std::uint32_t number,
                                                          const HttpResponse& response) {
    const bool isSuccess = response.getStatusCode() == HttpResponse::StatusCode::Ok ||
                           response.getStatusCode() == HttpResponse::StatusCode::Created;
    bool hasLocation = false;
    std::string location;
    std::string uuid;
    client_.retryOnBadAlloc([&] {
        const auto field = isSuccess ? response.getLocation() : std::nullopt;
        hasLocation = field.has_value();
        location = field.value_or("");
        uuid = uuidOf(location);
    });
    if (isSuccess && !hasLocation) {
        client_.logger->logWarning(false) << "HTTP response is missing location field";
    } else if (isSuccess && uuid.empty()) {
        client_.logger->logWarning(false)
            << "Cannot parse service uuid from HTTP location: " << location;
    }
    handle(entry, number, response, [&] {
        lockIsHeld();
        if (!uuid.empty()) {
            recordEntryLocked(*entry, uuid, location, response);
        } else {
            handlePutFailureLocked(*entry, response, !isSuccess && !isTransient(response));
        }
    });
}

void OrvServiceRegistryClient::ResilientUpkeep::recordEntryLocked(Entry& entry,
                                                                  const std::string& uuid,
                                                                  const std::string& location,
                                                                  const HttpResponse& response) {
    if (!entry.uuid.empty() && entry.uuid != uuid) {
        splitOffOldUuidLocked(entry);
    }
    const auto same = entry.endpoint.byUuid.find(uuid);
    const auto other = same == entry.endpoint.byUuid.end() ? nullptr : *same;
    const bool isOther = other && other.get() != &entry;
    if (!other) {
        entry.uuid = uuid;
        entry.endpoint.byUuid.insert(entry.shared_from_this());
    }
    for (Member* const member : entry.members) {
        Registration& registration = member->second;
        registration.request->serviceCreate->setUri(location);
        registration.request->serviceCreate->setId(uuid);
        if (registration.withdrawn || member->first > entry.sent) {
            continue;
        }
        registration.facts.confirmed = now();
        notifyLocked(*member, true);
        succeedLocked(member->first, *registration.request, registration.facts);
        enterLocked(member->first, *registration.request, registration.facts, State::Announced,
                    Kind::Announced);
        if (!registration.answered) {
            answerLocked(registration.waiting->registered, OrvRegistrationResponse::OK,
                         OrvRegistrationResponse::NONE, &response);
            registration.waiting.reset();
            registration.answered = true;
        }
    }
    entry.known = Known::Present;
    entry.held = entry.isOrderUnknown ? 0 : entry.sent;
    entry.backoff.reset();
    entry.notBefore = Milliseconds::min();
    if (isOther) {
        mergeLocked(entry, *other);
        return;
    }
    entry.outstanding = Request::None;
    // The first check has a random delay: services that are announced together are not checked
    // together, and the first of them notices a restarted registry.
    const Member* const latest = latestWanted(entry);
    const bool isDone = latest != nullptr && latest->first == entry.held;
    planLocked(entry,
               isDone ? now() + std::max(randomPartOf(checkInterval()), kShortestPause) : now());
    reconcileLocked(entry, &response);
}

/// The registry has assigned another uuid: the entry with the old uuid is split off, to be deleted.
void OrvServiceRegistryClient::ResilientUpkeep::splitOffOldUuidLocked(Entry& entry) {
    const auto left = std::make_shared<Entry>(entry.endpoint);
    left->uuid = entry.uuid;
    left->known = Known::Present;
    left->due = dues_.emplace(now(), left.get()).first;
    // Nothing allocates from here on.
    auto& byUuid = entry.endpoint.byUuid;
    auto node = byUuid.extract(byUuid.find(entry.uuid));
    node.value() = left;
    byUuid.insert(std::move(node));
    entry.uuid.clear();
}

/// It is unknown which of the two descriptions the registry stored last, so the latest one is sent
/// again.
void OrvServiceRegistryClient::ResilientUpkeep::mergeLocked(Entry& entry, Entry& into) {
    into.members.reserve(into.members.size() + entry.members.size());
    for (Member* const member : entry.members) {
        member->second.entry = &into;
        into.members.push_back(member);
    }
    std::sort(into.members.begin(), into.members.end(),
              [](const Member* one, const Member* other) { return one->first < other->first; });
    entry.members.clear();
    const auto kept = entry.shared_from_this();
    const auto shared = into.shared_from_this();
    for (auto& [path, target] : entry.endpoint.byPath) {
        if (target == kept) {
            target = shared;
        }
    }
    entry.path = entry.endpoint.byPath.end();
    into.isMerged = true;
    eraseLocked(entry);
    into.held = 0;
    into.isOrderUnknown = true;
    if (into.outstanding == Request::None) {
        planLocked(into, std::max(now(), into.notBefore));
    }
    reconcileLocked(into);
}

void OrvServiceRegistryClient::ResilientUpkeep::handlePutFailureLocked(Entry& entry,
                                                                       const HttpResponse& response,
                                                                       bool isRefusal) {
    failLocked(entry, "PUT", response);
    if (mayHaveTakenEffect(response)) {
        // Even if the entry was present: the registry may have assigned another uuid.
        entry.known = Known::Unknown;
    }
    Milliseconds delay = isRefusal ? checkInterval() : backOffLocked(entry);
    const auto sent = registrations_.find(entry.sent);
    if (sent != registrations_.end() && !sent->second.answered) {
        const std::uint16_t max = client_.context.maxRetryCount();
        std::uint16_t& retries = sent->second.waiting->retries;
        if (isRefusal || !client_.context.isRetryEnabled() || (max != 0 && retries >= max)) {
            giveUpLocked(*sent, OrvRegistrationResponse::SERVICE_REGISTRY_ERROR, &response);
            delay = Milliseconds::zero();
        } else {
            ++retries;
            delay = max == 0 ? delay : client_.context.getRetryInterval();
        }
    }
    const Member* const latest = latestWanted(entry);
    if (isRefusal && latest != nullptr && latest->first != entry.sent) {
        delay = Milliseconds::zero();  // the registry has not refused this description
    }
    delay = std::clamp(delay, Milliseconds::zero(), RegistrationFacts::kLongest);
    entry.outstanding = Request::None;
    planLocked(entry, std::max(now() + delay, entry.notBefore));
    reconcileLocked(entry, &response);
}

/// Gives up a registration that is still waiting.
void OrvServiceRegistryClient::ResilientUpkeep::giveUpLocked(
    Member& member, OrvRegistrationResponse::ErrorCode reason, const HttpResponse* response) {
    Registration& registration = member.second;
    if (registration.answered) {
        return;
    }
    answerLocked(registration.waiting->registered, OrvRegistrationResponse::ERROR, reason,
                 response);
    registration.answered = true;
    registration.withdrawn = true;
    registration.facts.enter(State::Withdrawing, now());
}

}  // namespace orvx::serviceregistryclient
