#pragma once

#include "Records.h"

#include <utility>

namespace orvx::serviceregistryclient {

/// The registrations by request id, and an index by the registry id in their descriptions. Finding
/// the registration of an entry and removing a registration take logarithmic time.
///
/// Several request ids may lead to one record. The index contains the records that a request id
/// still leads to: a record from which all ids were redirected is not in the index.
/// A function that throws std::bad_alloc has changed nothing that is visible and can be called
/// again.
/// Guarded by the client's lock. Records are never destroyed here under that lock: a caller that
/// erases a record shares its ownership.
class OrvServiceRegistryClient::RegistrationTable {
  public:
    using Record = std::shared_ptr<RegistrationData>;
    using Map = std::map<std::uint64_t, Record>;

    /// Null if the id is unknown.
    Record find(std::uint64_t id) const ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    /// The record with the lowest request id among those whose description has this registry id,
    /// which may be empty; null if there is none.
    Record findByRegistryId(const std::string& registryId) const ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    Map::const_iterator begin() const ORVX_REQUIRES(ORVX_CLIENT_LOCK) { return records_.begin(); }
    Map::const_iterator end() const ORVX_REQUIRES(ORVX_CLIENT_LOCK) { return records_.end(); }

    /// `id` must be new.
    void insert(std::uint64_t id, const Record& record) ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    /// Makes `id`, which must be present, lead to `target`. Returns the record that it led to
    /// before.
    Record redirect(std::uint64_t id, const Record& target) ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    /// Removes one id, which must be present.
    void erase(std::uint64_t id) noexcept ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    /// Removes all ids that lead to the record.
    void eraseAll(RegistrationData& record) noexcept ORVX_REQUIRES(ORVX_CLIENT_LOCK);

    /// A copy of the endpoint. Consecutive registrations at one endpoint share the same copy.
    std::shared_ptr<const common::ServiceInfo> share(const common::ServiceInfo& registry)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);

    /// The registry id in the request's description. Read from the index, because the description's
    /// memory is rarely in the processor's cache when a check is due.
    static std::string registryIdOf(const RequestContainer& request)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    /// Sets the registry id and the uri in the request's description, as in the registry's entry.
    void setRegistryEntry(RequestContainer& request, const std::string& registryId,
                          const std::string& uri) ORVX_REQUIRES(ORVX_CLIENT_LOCK);

  private:
    using Entry = RegistryIdIndex::node_type;

    static Entry makeEntry(const RegistrationData& record, const std::string& registryId)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    Entry takeEntry(RegistrationData& record) noexcept ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    void index(RegistrationData& record, Entry entry) noexcept ORVX_REQUIRES(ORVX_CLIENT_LOCK);

    Map records_ ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    RegistryIdIndex byRegistryId_ ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    std::shared_ptr<const common::ServiceInfo> registry_ ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
};

}  // namespace orvx::serviceregistryclient
