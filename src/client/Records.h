#pragma once

#include "OrvServiceRegistryClient.h"
#include "RegistrationFacts.h"

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orvx::serviceregistryclient {

/// Registry id and lowest request id of a record.
using RegistryIdKey = std::pair<std::string, std::uint64_t>;

/// Orders them with one comparison of texts each; a bare registry id stands before all its keys.
struct RegistryIdOrder {
    using is_transparent = void;

    bool operator()(const RegistryIdKey& one, const RegistryIdKey& other) const {
        const int order = one.first.compare(other.first);
        return order < 0 || (order == 0 && one.second < other.second);
    }
    bool operator()(const RegistryIdKey& one, const std::string& registryId) const {
        return one.first < registryId;
    }
};

/// The records whose description has a registry id.
using RegistryIdIndex = std::set<RegistryIdKey, RegistryIdOrder>;

/// The request ids that lead to a record, in ascending order. One takes no memory of its own.
class RequestIds {
  public:
    bool empty() const { return first_ == 0; }
    std::uint64_t front() const { return first_; }
    std::uint64_t back() const { return hasOthers() ? others_->back() : first_; }

    /// Does nothing when it is there. What throws has changed nothing.
    void insert(std::uint64_t id);
    /// It must be there.
    void erase(std::uint64_t id) noexcept;

    template <typename Function>
    void forEach(const Function& function) const {
        if (first_ != 0) {
            function(first_);
        }
        if (others_) {
            std::for_each(others_->begin(), others_->end(), function);
        }
    }

  private:
    bool hasOthers() const { return others_ && !others_->empty(); }

    std::uint64_t first_ = 0;  // 0 is no id.
    std::unique_ptr<std::vector<std::uint64_t>> others_;
};

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
    RegistrationState state;
    bool wasRegistered = false;
    /// Whether it has a place in the index, and the request ids that lead here; kept by the table.
    bool isIndexed = false;
    RequestIds ids;
    RegistryIdIndex::iterator place;
    RegistrationFacts facts;

    /// Leaves the list, if there is one, empty.
    static Callbacks take(const std::unique_ptr<CallbackList>& list) {
        return list ? std::exchange(list->callbacks, {}) : Callbacks{};
    }
};

}  // namespace orvx::serviceregistryclient
