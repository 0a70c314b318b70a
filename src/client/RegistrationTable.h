#pragma once

#include "Records.h"

#include <utility>

namespace orvx::serviceregistryclient {

/// The registrations by request id, and an index by the registry id in their descriptions, so that
/// neither finding the registration of an entry nor removing one costs more the more there are.
///
/// Several request ids may lead to one record. The index speaks of the descriptions that the
/// records hold: that of a request whose id was led to another record is in it only as long as
/// another id leads to its own.
/// What throws std::bad_alloc has changed nothing that counts, and can be called again.
/// Guarded by the client's lock. Records are never destroyed here under that lock: who erases one
/// holds a share.
class OrvServiceRegistryClient::RegistrationTable {
  public:
    using Record = std::shared_ptr<RegistrationData>;
    using Map = std::map<std::uint64_t, Record>;

    /// Null when there is none.
    Record find(std::uint64_t id) const;
    /// The record with the lowest request id among those whose description has this registry id, be
    /// it empty; null when there is none.
    Record findByRegistryId(const std::string& registryId) const;
    Map::const_iterator begin() const { return records_.begin(); }
    Map::const_iterator end() const { return records_.end(); }

    /// `id` must be new.
    void insert(std::uint64_t id, const Record& record);
    /// Makes `id`, which must be there, lead to `target`; returns the record it led to.
    Record lead(std::uint64_t id, const Record& target);
    /// Removes one id, which must be there.
    void erase(std::uint64_t id) noexcept;
    /// Removes every id that leads to the record.
    void eraseAll(RegistrationData& record) noexcept;

    /// A copy of the endpoint, the same one for all registrations in a row at one endpoint.
    std::shared_ptr<const common::ServiceInfo> share(const common::ServiceInfo& registry);

    /// The registry id in the request's description. The index has it at hand: the description and
    /// its values lie elsewhere in memory, each check's anew.
    static std::string registryIdOf(const RequestContainer& request);
    /// Writes what the registry holds into the request's description.
    void describe(RequestContainer& request, const std::string& registryId, const std::string& uri);

  private:
    using Entry = RegistryIdIndex::node_type;

    static Entry makeEntry(const RegistrationData& record, const std::string& registryId);
    Entry takeEntry(RegistrationData& record) noexcept;
    void index(RegistrationData& record, Entry entry) noexcept;

    Map records_;
    RegistryIdIndex byRegistryId_;
    std::shared_ptr<const common::ServiceInfo> registry_;
};

}  // namespace orvx::serviceregistryclient
