// The table of registrations and its index. Entered by every thread that enters the client, under
// the client's lock. A record stands in the index under its lowest request id, so whatever changes
// its ids or its registry id takes it out of the index before and puts it back after.
#include "RegistrationTable.h"

namespace orvx::serviceregistryclient {

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::find(std::uint64_t id) const {
    const auto found = records_.find(id);
    return found == records_.end() ? nullptr : found->second;
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::findByRegistryId(const std::string& registryId) const {
    const auto found = byRegistryId_.lower_bound({registryId, 0});
    return found == byRegistryId_.end() || found->first != registryId ? nullptr
                                                                      : find(found->second);
}

void OrvServiceRegistryClient::RegistrationTable::insert(std::uint64_t id, Record record) {
    record->ids.insert(id);
    index(*record);
    records_.emplace(id, std::move(record));
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::lead(std::uint64_t id, const Record& target) {
    Record previous = erase(id);
    unindex(*target);
    insert(id, target);
    return previous;
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::erase(std::uint64_t id) {
    const auto found = records_.find(id);
    Record record = std::move(found->second);
    records_.erase(found);
    unindex(*record);
    record->ids.erase(id);
    index(*record);
    return record;
}

void OrvServiceRegistryClient::RegistrationTable::eraseAll(RegistrationData& record) {
    unindex(record);
    for (const std::uint64_t id : record.ids) {
        records_.erase(id);
    }
    record.ids.clear();
}

// The request's id may lead to another record by now, which does not matter here.
void OrvServiceRegistryClient::RegistrationTable::describe(RequestContainer& request,
                                                           const std::string& registryId,
                                                           const std::string& uri) {
    RegistrationData* const record = request.record;
    if (record != nullptr) {
        unindex(*record);
    }
    request.serviceCreate->setId(registryId);
    request.serviceCreate->setUri(uri);
    if (record != nullptr) {
        index(*record);
    }
}

void OrvServiceRegistryClient::RegistrationTable::index(RegistrationData& record) {
    if (record.ids.empty()) {
        return;
    }
    record.requestContainer->record = &record;
    const common::ServiceCreate& service = *record.requestContainer->serviceCreate;
    if (service.hasId()) {
        byRegistryId_.emplace(service.getId(), *record.ids.begin());
    }
}

void OrvServiceRegistryClient::RegistrationTable::unindex(RegistrationData& record) {
    if (record.ids.empty()) {
        return;
    }
    record.requestContainer->record = nullptr;
    byRegistryId_.erase({record.requestContainer->serviceCreate->getId(), *record.ids.begin()});
}

}  // namespace orvx::serviceregistryclient
