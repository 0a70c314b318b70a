// With resilience: the blocking forms. Entered by the user's threads, which wait here; the callback
// thread delivers the answers. Every wait ends: with the last answer, its time-out, or the client's
// stop. After the first request and after a wait nothing of the client is used without its
// reference, because the client may be gone.

#include "ResilientBlockingCall.h"
#include "ResilientRecords.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>

namespace orvx::serviceregistryclient {

using common::ServiceCreate;
using Outcome = OrvRegistrationResponse;

/// Null if the call must not block; every service is answered with `reason` then.
std::shared_ptr<OrvServiceRegistryClient::ResilientUpkeep::BlockingCall>
OrvServiceRegistryClient::ResilientUpkeep::beginWait(Outcome::ErrorCode& reason) {
    if (isInsideUserCode()) {
        client_.logger->logError(false)
            << "A blocking call from a callback or listener would wait for itself.";
        reason = Outcome::OTHER;
        return nullptr;
    }
    auto wait = std::make_shared<BlockingCall>();
    const utility::MutexLock lock(client_.mutex);
    if (!client_.initiated) {
        reason = Outcome::DELEGATOR_NOT_INITIATED;
        return nullptr;
    }
    waits_.erase(
        std::remove_if(waits_.begin(), waits_.end(),
                       [](const std::weak_ptr<BlockingCall>& one) { return one.expired(); }),
        waits_.end());
    waits_.push_back(wait);
    return wait;
}

void OrvServiceRegistryClient::ResilientUpkeep::endWaits(
    const std::vector<std::weak_ptr<BlockingCall>>& waits) {
    for (const auto& one : waits) {
        if (const auto wait = one.lock()) {
            wait->end();
        }
    }
}

/// Makes a function that withdraws a service and waits for the answer.
std::function<Outcome()> OrvServiceRegistryClient::ResilientUpkeep::unregisterAndWait(
    UnregisterHandle handle) {
    return [reference = client_.reference, self = this, handle = std::move(handle),
            timeout = client_.syncCallUnregisterTimeout] {
        Outcome::ErrorCode reason = Outcome::DELEGATOR_NOT_INITIATED;
        std::shared_ptr<BlockingCall> wait;
        reference->call([&](OrvServiceRegistryClient&) { wait = self->beginWait(reason); });
        if (!wait) {
            return Outcome(Outcome::ERROR, reason);
        }
        wait->add(nullptr);
        handle([wait](Outcome response) { wait->answer(nullptr, std::move(response)); });
        return wait->wait(timeout).begin()->second;
    };
}

SyncOrvRegistrationResponse OrvServiceRegistryClient::ResilientUpkeep::registerAndWait(
    const common::ServiceInfo& registry, const std::shared_ptr<ServiceCreate>& service) {
    return registerAllAndWait(registry, {service}).second.begin()->second;
}

std::pair<bool, OrvServiceRegistryClient::Upkeep::SyncServiceResponses>
OrvServiceRegistryClient::ResilientUpkeep::registerAllAndWait(const common::ServiceInfo& registry,
                                                              const ServiceSet& services) {
    std::pair<bool, SyncServiceResponses> result(true, {});
    Outcome::ErrorCode reason = Outcome::NONE;
    const auto holder = client_.reference;
    const auto wait = services.empty() ? nullptr : beginWait(reason);
    const Milliseconds timeout = client_.context.getSyncCallRegistryTimeout();
    for (const auto& service : services) {
        result.second[service].response = {Outcome::ERROR, reason};
        result.first = false;
        if (wait) {
            wait->add(service);
        }
    }
    if (!wait) {
        return result;
    }
    for (const auto& service : services) {
        result.second[service].unregister = [] {
            return Outcome(Outcome::ERROR, Outcome::DELEGATOR_NOT_INITIATED);
        };
        holder->call([&](OrvServiceRegistryClient& client) {
            UnregisterHandle handle = client.registerServiceAtRegistry(
                registry, service,
                [wait, service](Outcome response) { wait->answer(service, std::move(response)); });
            result.second[service].unregister = unregisterAndWait(std::move(handle));
        });
    }
    result.first = true;
    for (auto& [service, response] : wait->wait(timeout)) {
        result.first = result.first && response.status == Outcome::OK;
        result.second[service].response = std::move(response);
    }
    return result;
}

std::pair<bool, OrvServiceRegistryClient::Upkeep::ServiceResponses>
OrvServiceRegistryClient::ResilientUpkeep::withdrawAllAndWait() {
    std::pair<bool, ServiceResponses> result(true, {});
    Outcome::ErrorCode reason = Outcome::NONE;
    const auto holder = client_.reference;
    const auto services = descriptions();
    const auto wait = services.empty() ? nullptr : beginWait(reason);
    const Milliseconds timeout = client_.syncCallUnregisterTimeout;
    for (const auto& [id, service] : services) {
        result.first = false;
        result.second.emplace(service, Outcome(Outcome::ERROR, reason));
        if (wait) {
            wait->add(service);
        }
    }
    if (!wait) {
        return result;
    }
    for (const auto& [id, service] : services) {
        holder->call([&, id = id, &service = service](OrvServiceRegistryClient&) {
            withdraw(id, [wait, service](Outcome response) {
                wait->answer(service, std::move(response));
            });
        });
    }
    result.second = wait->wait(timeout);
    result.first = std::all_of(result.second.begin(), result.second.end(),
                               [](const auto& one) { return one.second.status == Outcome::OK; });
    return result;
}

}  // namespace orvx::serviceregistryclient
