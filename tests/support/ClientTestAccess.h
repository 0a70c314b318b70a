#pragma once

#include "RegistrationTable.h"

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace orvx::serviceregistryclient {

/// The only friend of the client: reads its state and calls functions that its own threads call.
class ClientTestAccess {
  public:
    using Client = OrvServiceRegistryClient;
    using Request = std::shared_ptr<Client::RequestContainer>;
    using Callbacks = Client::Callbacks;

    explicit ClientTestAccess(Client& client) : client_(client) {}

    // State.

    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> services() const {
        return client_.snapshot();
    }
    // These throw std::out_of_range for an unknown id.
    Request request(std::uint64_t id) const {
        const utility::MutexLock lock(client_.mutex);
        return existingLocked(id).requestContainer;
    }
    std::shared_ptr<common::ServiceCreate> service(std::uint64_t id) const {
        const utility::MutexLock lock(client_.mutex);
        return existingLocked(id).requestContainer->serviceCreate;
    }
    std::uint32_t state(std::uint64_t id) const { return copyOf(id).state; }
    void setState(std::uint64_t id, std::uint32_t state) {
        const utility::MutexLock lock(client_.mutex);
        existingLocked(id).state = state;
    }
    /// A copy of fields of a record. A list of callbacks is absent or has a size.
    struct Fields {
        std::uint32_t state;
        std::optional<std::size_t> registerCallbacks;
        std::optional<std::size_t> unregisterCallbacks;
        std::uint16_t retryCount;
        bool wasRegistered;
        bool hasBackoffSequence;
        bool hasRegistryEntry;
    };
    Fields copyOf(std::uint64_t id) const {
        const utility::MutexLock lock(client_.mutex);
        const Client::RegistrationData& record = existingLocked(id);
        return {record.state,
                sizeOf(record.registerCallbacks.get()),
                sizeOf(record.unregisterCallbacks.get()),
                record.registerCallbacks ? record.registerCallbacks->retryCount : std::uint16_t{0},
                record.wasRegistered,
                record.backoffSequence != nullptr,
                record.registryEntry != nullptr};
    }
    void addRegisterCallback(std::uint64_t id, Client::ResponseCallback callback) {
        const utility::MutexLock lock(client_.mutex);
        existingLocked(id).registerCallbacks->callbacks.push_back(std::move(callback));
    }
    /// Expires when the record is destroyed.
    std::weak_ptr<const void> lifetimeOf(std::uint64_t id) const {
        const utility::MutexLock lock(client_.mutex);
        return client_.mapRegistryCallback->find(id);
    }
    std::uint32_t checkState() const {
        const utility::MutexLock lock(client_.mutex);
        return client_.checkState;
    }
    void setCheckState(std::uint32_t state) {
        const utility::MutexLock lock(client_.mutex);
        client_.checkState = static_cast<Client::HeadState>(state);
    }
    /// Whether no thread holds the client's lock. Another thread tries the lock, because a thread
    /// must not try a lock that it holds.
    bool isLockFree() const {
        return std::async(std::launch::async,
                          [this] {
                              if (!client_.mutex.try_lock()) {
                                  return false;
                              }
                              client_.mutex.unlock();
                              return true;
                          })
            .get();
    }
    std::shared_ptr<communication::HealthCheck> healthCheck() const {
        return client_.communicationContext.getHealthCheck();
    }
    std::shared_ptr<communication::IClientHttpSession> session(const common::ServiceInfo& info) {
        const utility::MutexLock lock(client_.mutex);
        return client_.createOrGetRegistryClientSession(info);
    }

    // Functions that the client's own threads call.

    void sendPut(std::uint64_t id, const Request& request) { client_.sendPutRequest(id, request); }
    void sendHead(std::uint64_t id, const Request& request) {
        client_.sendHeadRequest(id, request);
    }
    void sendDelete(std::uint64_t id, const Request& request) {
        client_.sendDeleteRequest(id, request);
    }
    void handlePut(std::uint64_t id, const Request& request, communication::HttpResponse response) {
        client_.handlePutResponse(id, request, std::move(response));
    }
    void handlePutError(std::uint64_t id, const Request& request,
                        communication::HttpResponse response) {
        client_.handlePutResponseError(id, request, std::move(response));
    }
    void handleHead(std::uint64_t id, const Request& request,
                    communication::HttpResponse response) {
        client_.handleHeadResponse(id, request, std::move(response));
    }
    void timeOutHead(communication::IClientHttpSession& session) {
        client_.handleHeadTimeout(session);
    }
    void handleDelete(std::uint64_t id, communication::HttpResponse response) {
        client_.handleDeleteResponse(id, std::move(response));
    }
    void deleteEntries(std::uint64_t id, Callbacks& callbacks) {
        client_.deleteRegistryEntriesAndNotifyListener(id, callbacks);
    }
    void unregister(std::uint64_t id, const Client::ResponseCallback& callback) {
        client_.internal_unregisterFromRegistry(id, callback);
    }
    void dispatch(Client::ResponseCallback callback, const Client::Response& response) {
        client_.callCallback(std::move(callback), response);
    }
    static OrvRegistrationResponse synchronized(const std::function<void(Client::Promise)>& call,
                                                std::chrono::milliseconds timeout) {
        return Client::makeSynchronizedCallRegistrationResponse(call, timeout);
    }
    static auto collect(const Client::ServiceSet& services,
                        const std::function<void(std::shared_ptr<common::ServiceCreate>,
                                                 Client::ServiceCallback)>& registerOne) {
        return Client::executeSynchronousServiceCollectionRegistryCall(services, registerOne);
    }
    auto collectUnregistrations(
        const std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>>& registrations,
        const std::function<void(std::uint64_t, std::shared_ptr<common::ServiceCreate>,
                                 Client::ServiceCallback)>& unregisterOne) {
        return client_.executeSynchronousServiceCollectionUnregistration(registrations,
                                                                         unregisterOne);
    }

  private:
    Client::RegistrationData& existingLocked(std::uint64_t id) const ORVX_REQUIRES(client_.mutex) {
        const auto found = client_.mapRegistryCallback->find(id);
        return found ? *found : throw std::out_of_range("no registration " + std::to_string(id));
    }
    static std::optional<std::size_t> sizeOf(const Client::CallbackList* list) {
        return list != nullptr ? std::optional(list->callbacks.size()) : std::nullopt;
    }

    Client& client_;
};

}  // namespace orvx::serviceregistryclient
