#pragma once

#include "OrvServiceRegistryClient.h"

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <optional>
#include <utility>
#include <vector>

namespace orvx::serviceregistryclient {

/// Registry id and lowest request id of each record whose description has a registry id.
using RegistryIdIndex = std::set<std::pair<std::string, std::uint64_t>>;

/// What a registration sends, to which registry. Immutable once built, but for the description's id
/// and uri, which follow what the registry holds, and the way back to its record.
struct OrvServiceRegistryClient::RequestContainer {
    std::shared_ptr<const common::ServiceInfo> serviceInfo;
    std::shared_ptr<common::ServiceCreate> serviceCreate;
    std::shared_ptr<const std::string> uri;
    std::shared_ptr<const std::string> body;
    /// The record that holds this request, while the table holds the record; kept by the table.
    RegistrationData* record = nullptr;
};

/// Callbacks that wait for one outcome.
struct OrvServiceRegistryClient::CallbackList {
    Callbacks callbacks;
    std::uint16_t retryCount = 0;
};

/// One managed registration. Guarded by the client's lock.
struct OrvServiceRegistryClient::RegistrationData {
    std::shared_ptr<RequestContainer> requestContainer;
    std::shared_ptr<common::ServiceModel> registryEntry;
    /// Both until the first success.
    std::unique_ptr<communication::QunaConnectionBackoffSequence> backoffSequence;
    std::unique_ptr<CallbackList> registerCallbacks;
    /// From the first request to withdraw on.
    std::unique_ptr<CallbackList> unregisterCallbacks;
    std::uint32_t state = CREATED;
    bool wasRegistered = false;
    /// The request ids that lead here, in ascending order, and its place in the index; kept by the
    /// table.
    std::vector<std::uint64_t> ids;
    std::optional<RegistryIdIndex::iterator> place;

    /// Leaves the list, if there is one, empty.
    static Callbacks take(const std::unique_ptr<CallbackList>& list) {
        return list ? std::exchange(list->callbacks, {}) : Callbacks{};
    }
};

}  // namespace orvx::serviceregistryclient
