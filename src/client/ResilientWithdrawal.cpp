// With resilience: withdrawal, which may be requested at any time, and answers to a DELETE. Entered
// by the user's threads, the timer's thread and the I/O thread.

#include "Memory.h"
#include "ResilientRecords.h"

#include <algorithm>
#include <new>

namespace orvx::serviceregistryclient {

using State = RegistrationStatus::State;
using Kind = RegistrationEvent::Kind;

void OrvServiceRegistryClient::ResilientUpkeep::withdraw(std::uint64_t id,
                                                         const ResponseCallback& callback) {
    Answer waiting = callback ? std::make_shared<const ResponseCallback>(callback) : nullptr;
    {
        const utility::MutexLock lock(client_.mutex);
        if (!client_.initiated) {
            answerLocked(waiting, OrvRegistrationResponse::ERROR,
                         OrvRegistrationResponse::DELEGATOR_NOT_INITIATED, nullptr);
            return;
        }
        const auto found = registrations_.find(id);
        if (found != registrations_.end()) {
            withdrawLocked(*found, waiting);  // destroyed after unlocking, also if this throws
            return;
        }
        answerLocked(waiting, OrvRegistrationResponse::OK, OrvRegistrationResponse::NONE, nullptr);
    }
    client_.logger->logWarning(false)
        << "Trying to unregister a service that is not registered (anymore). Ignore. id=" << id;
}

void OrvServiceRegistryClient::ResilientUpkeep::withdrawLocked(Member& member, Answer answer) {
    Registration& registration = member.second;
    if (answer) {
        if (!registration.waiting) {
            registration.waiting = std::make_unique<Waiting>();
        }
        Milliseconds deadline = kNever;
        const Milliseconds timeout = client_.syncCallUnregisterTimeout;
        if (timeout != Milliseconds::zero()) {
            deadline =
                now() + std::clamp(timeout, Milliseconds::zero(), RegistrationFacts::kLongest);
            deadlines_.emplace(deadline, member.first);
        }
        registration.waiting->withdrawals.emplace_back(deadline, nullptr);
    }
    giveUpLocked(member, OrvRegistrationResponse::OTHER, nullptr);
    // Nothing throws from here on, so a call that throws has had no effect.
    if (answer) {
        registration.waiting->withdrawals.back().second = std::move(answer);
    }
    if (!std::exchange(registration.withdrawn, true)) {
        registration.facts.enter(State::Withdrawing, now());
    }
    wantedChangedLocked(*registration.entry);
}

void OrvServiceRegistryClient::ResilientUpkeep::handleDelete(const std::shared_ptr<Entry>& entry,
                                                             std::uint32_t number,
                                                             const HttpResponse& response) {
    const int status = static_cast<int>(response.getStatusCode());
    const bool isGone = status == 200 || status == 204 || status == 404 || status == 410;
    if (!isGone) {
        client_.logger->logWarning(false)
            << "response to delete request was not ok, status=" << status;
    }
    handle(entry, number, response, [&] {
        lockIsHeld();
        if (isGone) {
            for (Member* const member : entry->members) {
                Upkeep::succeedLocked(member->first, *member->second.request, member->second.facts);
            }
            const bool isRepeated = std::exchange(entry->isOrderUnknown, false);
            entry->known = isRepeated ? Known::Present : Known::Absent;
            entry->backoff.reset();
            entry->notBefore = Milliseconds::min();
            entry->outstanding = Request::None;
            if (!isRepeated) {
                forgetUuidLocked(*entry);
            }
            planLocked(*entry, now());
        } else {
            failLocked(*entry, "DELETE", response);
            Milliseconds delay = checkInterval();
            const bool isOfServer = static_cast<int>(response.getStatusCode()) >= 500;
            if (isOfServer || isTransient(response)) {
                delay = backOffLocked(*entry);
            } else {
                for (Member* const member : entry->members) {
                    answerWithdrawalsLocked(*member, OrvRegistrationResponse::ERROR,
                                            OrvRegistrationResponse::SERVICE_REGISTRY_ERROR,
                                            &response);
                }
            }
            entry->outstanding = Request::None;
            const bool isWantedAgain = latestWanted(*entry) != nullptr;
            planLocked(*entry, std::max(isWantedAgain ? now() : now() + delay, entry->notBefore));
        }
        reconcileLocked(*entry, &response);
    });
}

void OrvServiceRegistryClient::ResilientUpkeep::answerWithdrawalsLocked(
    Member& member, OrvRegistrationResponse::Status status,
    OrvRegistrationResponse::ErrorCode reason, const HttpResponse* response) {
    if (!member.second.waiting) {
        return;
    }
    auto& withdrawals = member.second.waiting->withdrawals;
    while (!withdrawals.empty()) {
        answerLocked(withdrawals.front().second, status, reason, response);
        deadlines_.erase({withdrawals.front().first, member.first});
        withdrawals.erase(withdrawals.begin());
    }
}

/// Answers withdrawals whose deadline has passed; the client continues to try.
void OrvServiceRegistryClient::ResilientUpkeep::answerLateWithdrawalsLocked(Milliseconds time) {
    while (!deadlines_.empty() && deadlines_.begin()->first <= time) {
        const auto found = registrations_.find(deadlines_.begin()->second);
        if (found != registrations_.end() && found->second.waiting) {
            auto& withdrawals = found->second.waiting->withdrawals;
            // Ordered by deadline, because the time-out is the same for all.
            while (!withdrawals.empty() && withdrawals.front().first <= time) {
                answerLocked(withdrawals.front().second, OrvRegistrationResponse::ERROR,
                             OrvRegistrationResponse::TIMEOUT, nullptr);
                withdrawals.erase(withdrawals.begin());
            }
        }
        deadlines_.erase(deadlines_.begin());
    }
}

/// Removes registrations whose withdrawal is complete: the registry holds no entry under the path,
/// or the latest description that is not withdrawn.
void OrvServiceRegistryClient::ResilientUpkeep::removeWithdrawnLocked(Entry& entry,
                                                                      const HttpResponse* reason) {
    const Member* const latest = latestWanted(entry);
    const bool isHeld =
        latest != nullptr && entry.known == Known::Present && entry.held == latest->first;
    if (entry.known != Known::Absent && !isHeld) {
        return;
    }
    for (std::size_t i = 0; i < entry.members.size();) {
        Member& member = *entry.members[i];
        if (!member.second.withdrawn) {
            ++i;
            continue;
        }
        notifyLocked(member, false);
        answerWithdrawalsLocked(member, OrvRegistrationResponse::OK, OrvRegistrationResponse::NONE,
                                reason);
        reportLocked(member.first, *member.second.request, member.second.facts, Kind::Withdrawn);
        entry.members.erase(entry.members.begin() + static_cast<std::ptrdiff_t>(i));
        registrations_.erase(member.first);
    }
    if (registrations_.empty()) {
        empty_.notify_all();
    }
}

std::vector<std::string> OrvServiceRegistryClient::ResilientUpkeep::withdrawWithin(
    Milliseconds bound) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    std::vector<std::string> left;
    utility::MutexLock lock(client_.mutex);
    // A call may remove other registrations of the same entry.
    for (auto next = registrations_.begin(); next != registrations_.end();) {
        const std::uint64_t id = next->first;
        try {
            withdrawLocked(*next, nullptr);
            next = registrations_.upper_bound(id);
        } catch (const std::bad_alloc&) {
            const auto pause = std::chrono::steady_clock::now() + Milliseconds(10);
            empty_.wait_until(lock.native(), std::min(pause, deadline));
            next = std::chrono::steady_clock::now() < deadline ? registrations_.lower_bound(id)
                                                               : registrations_.end();
        }
    }
    while (!registrations_.empty() &&
           empty_.wait_until(lock.native(), deadline) != std::cv_status::timeout) {
    }
    for (const auto& [id, registration] : registrations_) {
        left.push_back(registration.request->serviceCreate->getName());
    }
    return left;
}

}  // namespace orvx::serviceregistryclient
