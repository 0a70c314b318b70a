// The table of registrations and its index. Entered by every thread that enters the client, under
// the client's lock. A record stands in the index under its lowest request id, so whatever changes
// its ids or its registry id takes its entry out before and puts it back after, which needs no
// memory.
#include "RegistrationTable.h"

#include <algorithm>

namespace orvx::serviceregistryclient {

void OrvServiceRegistryClient::RegistrationTable::addId(RegistrationData& record,
                                                        std::uint64_t id) {
    const auto place = std::lower_bound(record.ids.begin(), record.ids.end(), id);
    if (place == record.ids.end() || *place != id) {
        record.ids.insert(place, id);
    }
}

void OrvServiceRegistryClient::RegistrationTable::removeId(RegistrationData& record,
                                                           std::uint64_t id) noexcept {
    record.ids.erase(std::lower_bound(record.ids.begin(), record.ids.end(), id));
}

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

void OrvServiceRegistryClient::RegistrationTable::insert(std::uint64_t id, const Record& record) {
    RegistrationData& added = *record;
    addId(added, id);
    const common::ServiceCreate& service = *added.requestContainer->serviceCreate;
    Entry entry = service.hasId() ? makeEntry(added, service.getId()) : Entry();
    records_.emplace(id, record);
    index(added, std::move(entry));
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::lead(std::uint64_t id, const Record& target) {
    addId(*target, id);
    Record previous = std::exchange(records_.find(id)->second, target);
    if (previous != target) {
        Entry entry = takeEntry(*previous);
        removeId(*previous, id);
        index(*previous, std::move(entry));
    }
    index(*target, takeEntry(*target));
    return previous;
}

void OrvServiceRegistryClient::RegistrationTable::erase(std::uint64_t id) noexcept {
    const auto found = records_.find(id);
    RegistrationData& record = *found->second;
    Entry entry = takeEntry(record);
    removeId(record, id);
    index(record, std::move(entry));
    records_.erase(found);
}

void OrvServiceRegistryClient::RegistrationTable::eraseAll(RegistrationData& record) noexcept {
    takeEntry(record);
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
    Entry entry = record != nullptr ? makeEntry(*record, registryId) : Entry();
    request.serviceCreate->setUri(uri);
    request.serviceCreate->setId(registryId);  // last: it is by its id that it counts
    if (record != nullptr) {
        takeEntry(*record);
        index(*record, std::move(entry));
    }
}

OrvServiceRegistryClient::RegistrationTable::Entry
OrvServiceRegistryClient::RegistrationTable::makeEntry(const RegistrationData& record,
                                                       const std::string& registryId) {
    RegistryIdIndex made{{registryId, record.ids.front()}};
    return made.extract(made.begin());
}

/// Of a record that is not in the index: empty.
OrvServiceRegistryClient::RegistrationTable::Entry
OrvServiceRegistryClient::RegistrationTable::takeEntry(RegistrationData& record) noexcept {
    record.requestContainer->record = nullptr;
    const auto place = std::exchange(record.place, std::nullopt);
    return place ? byRegistryId_.extract(*place) : Entry();
}

/// Under the lowest id that leads to the record by now; a record without one has left.
void OrvServiceRegistryClient::RegistrationTable::index(RegistrationData& record,
                                                        Entry entry) noexcept {
    if (record.ids.empty()) {
        return;
    }
    record.requestContainer->record = &record;
    if (entry) {
        entry.value().second = record.ids.front();
        record.place = byRegistryId_.insert(std::move(entry)).position;
    }
}

}  // namespace orvx::serviceregistryclient
