// Without resilience: forwards operations to the client's own members, and adds the withdrawal at
// deinit(). Entered by the user's threads.

#include "BasicUpkeep.h"

#include "RegistrationTable.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>
#include <new>

namespace orvx::serviceregistryclient {

namespace {

/// The delay before the next attempt to withdraw services that were refused or have no entry yet,
/// and before the refusal of a registration meanwhile.
constexpr std::chrono::milliseconds kPause{50};

}  // namespace

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::BasicUpkeep::announce(
    const common::ServiceInfo& registry, const std::shared_ptr<RequestContainer>& request,
    ResponseCallback callback) {
    if (client_.isEnding) {
        refuseLater(std::move(callback));
        const utility::MutexLock lock(client_.mutex);
        return client_.handleOfRefusedService(request->serviceCreate->getName());
    }
    UnregisterHandle handle;
    const std::uint64_t id =
        client_.storeRegistration(registry, request, std::move(callback), handle);
    client_.sendPutRequest(id, request);
    return handle;
}

// After a pause: a callback that registers again at once would occupy the callback thread.
void OrvServiceRegistryClient::BasicUpkeep::refuseLater(ResponseCallback callback) {
    if (!callback) {
        return;
    }
    const auto tasks = std::make_shared<Tasks>();
    tasks->emplace_back([callback = std::move(callback)] {
        callback(
            {OrvRegistrationResponse::ERROR, OrvRegistrationResponse::DELEGATOR_NOT_INITIATED});
    });
    client_.timer.addTask(kPause,
                          [this, tasks] { client_.callbackExecutor.add(std::move(*tasks)); });
}

void OrvServiceRegistryClient::BasicUpkeep::withdraw(std::uint64_t id,
                                                     const ResponseCallback& callback) {
    client_.internal_unregisterFromRegistry(id, callback);
}

void OrvServiceRegistryClient::BasicUpkeep::queueTask(std::function<void()> task) {
    client_.callbackExecutor.add(std::move(task));
}

void OrvServiceRegistryClient::BasicUpkeep::queueTasksLocked(Tasks tasks) {
    client_.callbackExecutor.add(std::move(tasks));
}

std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>>
OrvServiceRegistryClient::BasicUpkeep::descriptions() {
    return client_.snapshot();
}

std::vector<RegistrationStatus> OrvServiceRegistryClient::BasicUpkeep::statuses() {
    std::vector<RegistrationStatus> statuses;
    const utility::MutexLock lock(client_.mutex);
    const Clocks clocks = readClocks();
    for (const auto& [id, record] : *client_.mapRegistryCallback) {
        statuses.push_back(statusLocked(id, *record->requestContainer, record->facts, clocks));
    }
    return statuses;
}

/// Begins the withdrawal of all registrations that have an entry.
void OrvServiceRegistryClient::BasicUpkeep::withdrawEntries() {
    std::vector<std::uint64_t> ids;
    {
        const utility::MutexLock lock(client_.mutex);
        for (const auto& [id, record] : *client_.mapRegistryCallback) {
            if (!record->state.isUnregistering() &&
                !record->requestContainer->serviceCreate->getId().empty()) {
                ids.push_back(id);
            }
        }
    }
    for (const std::uint64_t id : ids) {
        client_.internal_unregisterFromRegistry(id, {});
    }
}

// A service without an entry cannot be withdrawn, so the withdrawal is repeated until there is an
// entry.
std::vector<std::string> OrvServiceRegistryClient::BasicUpkeep::withdrawWithin(
    std::chrono::milliseconds bound) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    std::vector<std::string> left;
    utility::MutexLock lock(client_.mutex);
    do {
        lock.unlock();
        try {
            withdrawEntries();
        } catch (const std::bad_alloc&) {
            // The next round withdraws the others.
        }
        lock.lock();
        if (client_.mapRegistryCallback->begin() == client_.mapRegistryCallback->end()) {
            return {};
        }
        const auto next = std::chrono::steady_clock::now() + kPause;
        client_.empty.wait_until(lock.native(), std::min(next, deadline));
    } while (std::chrono::steady_clock::now() < deadline);
    for (const auto& [id, record] : *client_.mapRegistryCallback) {
        left.push_back(record->requestContainer->serviceCreate->getName());
    }
    return left;
}

SyncOrvRegistrationResponse OrvServiceRegistryClient::BasicUpkeep::registerAndWait(
    const common::ServiceInfo& registry, const std::shared_ptr<common::ServiceCreate>& service) {
    return client_.registerAndWait(registry, service);
}

std::pair<bool, OrvServiceRegistryClient::Upkeep::SyncServiceResponses>
OrvServiceRegistryClient::BasicUpkeep::registerAllAndWait(const common::ServiceInfo& registry,
                                                          const ServiceSet& services) {
    return client_.registerAllAndWait(registry, services);
}

std::pair<bool, OrvServiceRegistryClient::Upkeep::ServiceResponses>
OrvServiceRegistryClient::BasicUpkeep::withdrawAllAndWait() {
    return client_.withdrawAllAndWait();
}

}  // namespace orvx::serviceregistryclient
