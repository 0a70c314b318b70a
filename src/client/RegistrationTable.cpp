// The table of registrations and its index. Entered by every thread that enters the client, under
// the client's lock. A record is in the index under its lowest request id. A function that changes
// its request ids or its registry id removes its index entry first and inserts the same node again,
// which allocates nothing.

#include "RegistrationTable.h"

#include <algorithm>

namespace orvx::serviceregistryclient {

void RequestIds::insert(std::uint64_t id) {
    if (first_ == 0 || first_ == id) {
        first_ = id;
        return;
    }
    if (!others_) {
        others_ = std::make_unique<std::vector<std::uint64_t>>();
    }
    const auto [first, other] = std::minmax(first_, id);
    const auto place = std::lower_bound(others_->begin(), others_->end(), other);
    if (place == others_->end() || *place != other) {
        others_->insert(place, other);
    }
    first_ = first;
}

void RequestIds::erase(std::uint64_t id) noexcept {
    if (id != first_) {
        others_->erase(std::lower_bound(others_->begin(), others_->end(), id));
    } else if (hasOthers()) {
        first_ = others_->front();
        others_->erase(others_->begin());
    } else {
        first_ = 0;
    }
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::find(std::uint64_t id) const {
    const auto found = records_.find(id);
    return found == records_.end() ? nullptr : found->second;
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::findByRegistryId(const std::string& registryId) const {
    const auto found = byRegistryId_.lower_bound(registryId);
    return found == byRegistryId_.end() || found->first != registryId ? nullptr
                                                                      : find(found->second);
}

void OrvServiceRegistryClient::RegistrationTable::insert(std::uint64_t id, const Record& record) {
    RegistrationData& added = *record;
    added.ids.insert(id);
    const common::ServiceCreate& service = *added.requestContainer->serviceCreate;
    Entry entry = service.hasId() ? makeEntry(added, service.getId()) : Entry();
    records_.emplace_hint(records_.end(), id, record);
    index(added, std::move(entry));
}

OrvServiceRegistryClient::RegistrationTable::Record
OrvServiceRegistryClient::RegistrationTable::redirect(std::uint64_t id, const Record& target) {
    target->ids.insert(id);
    Record previous = std::exchange(records_.find(id)->second, target);
    if (previous != target) {
        Entry entry = takeEntry(*previous);
        previous->ids.erase(id);
        index(*previous, std::move(entry));
    }
    index(*target, takeEntry(*target));
    return previous;
}

void OrvServiceRegistryClient::RegistrationTable::erase(std::uint64_t id) noexcept {
    const auto found = records_.find(id);
    RegistrationData& record = *found->second;
    Entry entry = takeEntry(record);
    record.ids.erase(id);
    index(record, std::move(entry));
    records_.erase(found);
}

void OrvServiceRegistryClient::RegistrationTable::eraseAll(RegistrationData& record) noexcept {
    takeEntry(record);
    while (!record.ids.empty()) {
        const std::uint64_t id = record.ids.back();
        records_.erase(id);
        record.ids.erase(id);
    }
}

std::shared_ptr<const common::ServiceInfo> OrvServiceRegistryClient::RegistrationTable::share(
    const common::ServiceInfo& registry) {
    if (!registry_ || *registry_ != registry) {
        registry_ = std::make_shared<const common::ServiceInfo>(registry);
    }
    return registry_;
}

std::string OrvServiceRegistryClient::RegistrationTable::registryIdOf(
    const RequestContainer& request) {
    const RegistrationData* const record = request.record;
    return record != nullptr && record->isIndexed ? record->place->first
                                                  : request.serviceCreate->getId();
}

// The request's id may lead to another record by now; that does not matter here.
void OrvServiceRegistryClient::RegistrationTable::setRegistryEntry(RequestContainer& request,
                                                                   const std::string& registryId,
                                                                   const std::string& uri) {
    RegistrationData* const record = request.record;
    Entry entry = record != nullptr ? makeEntry(*record, registryId) : Entry();
    request.serviceCreate->setUri(uri);
    request.serviceCreate->setId(registryId);  // last, because the id makes the entry valid
    if (record != nullptr) {
        takeEntry(*record);
        index(*record, std::move(entry));
    }
}

OrvServiceRegistryClient::RegistrationTable::Entry
OrvServiceRegistryClient::RegistrationTable::makeEntry(const RegistrationData& record,
                                                       const std::string& registryId) {
    RegistryIdIndex made;
    made.emplace(registryId, record.ids.front());
    return made.extract(made.begin());
}

/// Empty if the record is not in the index.
OrvServiceRegistryClient::RegistrationTable::Entry
OrvServiceRegistryClient::RegistrationTable::takeEntry(RegistrationData& record) noexcept {
    record.requestContainer->record = nullptr;
    const bool wasIndexed = std::exchange(record.isIndexed, false);
    return wasIndexed ? byRegistryId_.extract(record.place) : Entry();
}

/// Inserts the record under its lowest request id. Does nothing if no id leads to the record any
/// more.
void OrvServiceRegistryClient::RegistrationTable::index(RegistrationData& record,
                                                        Entry entry) noexcept {
    if (record.ids.empty()) {
        return;
    }
    record.requestContainer->record = &record;
    if (entry) {
        entry.value().second = record.ids.front();
        record.place = byRegistryId_.insert(std::move(entry)).position;
        record.isIndexed = true;
    }
}

}  // namespace orvx::serviceregistryclient
