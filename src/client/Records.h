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

/// The lock that guards a record: that of its client. A record does not know its client, so clang
/// accepts the lock of any client.
#define ORVX_CLIENT_LOCK &OrvServiceRegistryClient::mutex

namespace orvx::serviceregistryclient {

/// The registry id and the lowest request id of a record.
using RegistryIdKey = std::pair<std::string, std::uint64_t>;

/// Compares the texts of two keys once. A registry id alone is ordered before all its keys.
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

/// The request ids that lead to a record, in ascending order. A single id is stored without an
/// allocation.
class RequestIds {
  public:
    bool empty() const { return first_ == 0; }
    std::uint64_t front() const { return first_; }
    std::uint64_t back() const { return hasOthers() ? others_->back() : first_; }

    /// Does nothing if the id is present. Throws std::bad_alloc; nothing has changed then.
    void insert(std::uint64_t id);
    /// The id must be present.
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

    std::uint64_t first_ = 0;  // 0 if there is none.
    std::unique_ptr<std::vector<std::uint64_t>> others_;
};

/// The content of a registration request and its registry. Constant once built, except `record` and
/// the description's id and uri, which follow the registry's entry.
struct OrvServiceRegistryClient::RequestContainer {
    std::shared_ptr<const common::ServiceInfo> serviceInfo;
    std::shared_ptr<common::ServiceCreate> serviceCreate ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    std::shared_ptr<const std::string> uri;
    std::shared_ptr<const std::string> body;
    /// The record that holds this request, while the table holds that record. Maintained by the
    /// table.
    RegistrationData* record ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = nullptr;
};

/// Callbacks that wait for one outcome. Reached through its record only.
struct OrvServiceRegistryClient::CallbackList {
    Callbacks callbacks;
    std::uint16_t retryCount = 0;
};

/// One managed registration.
struct OrvServiceRegistryClient::RegistrationData {
    std::shared_ptr<RequestContainer> requestContainer ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    std::shared_ptr<common::ServiceModel> registryEntry ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// Both are released on the first success.
    std::unique_ptr<communication::QunaConnectionBackoffSequence> backoffSequence
        ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    std::unique_ptr<CallbackList> registerCallbacks ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// Set by the first request to withdraw.
    std::unique_ptr<CallbackList> unregisterCallbacks ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    RegistrationState state ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    bool wasRegistered ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
    /// Whether the record is in the index, and the request ids that lead to the record. Maintained
    /// by the table.
    bool isIndexed ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
    RequestIds ids ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    RegistryIdIndex::iterator place ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    RegistrationFacts facts ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);

    /// Moves the callbacks out of the list, if there is one.
    static Callbacks take(const std::unique_ptr<CallbackList>& list) {
        return list ? std::exchange(list->callbacks, {}) : Callbacks{};
    }
};

}  // namespace orvx::serviceregistryclient
