// The entries in a list, in the order of their creation, with an index for each way to find one,
// and their names in the order of their renewal. Entered by whichever thread its owner uses, one at
// a time: the server's own, or a test's. There is no lock.

#include "EntryStore.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <utility>

#include "EntryFile.h"

namespace orvx::registry {

namespace {

constexpr const char* kNoAddress = "?:?";

}  // namespace

std::string addressOf(const nlohmann::json& service) {
    const auto host = service.find("host");
    const auto port = service.find("port");
    return (host != service.end() && host->is_string() ? host->get<std::string>() : "?") + ':' +
           (port != service.end() && port->is_number() ? port->dump() : "?");
}

EntryStore::EntryStore(StoreOptions options) : options_(std::move(options)) {
    if (options_.file.empty()) {
        return;
    }
    file_ = std::make_unique<EntryFile>(options_.file);
    for (Entry& entry : file_->load()) {
        add(std::move(entry));
    }
}

EntryStore::~EntryStore() = default;

EntryStore::PutResult EntryStore::put(std::string path, nlohmann::json service) {
    if (const auto known = byPath_.find(path); known != byPath_.end()) {
        Entry& entry = *known->second.entry;
        if (file_) {
            file_->replace(entry.uuid, service);
        }
        std::string before = addressOf(entry.service);
        entry.service = std::move(service);
        renew(known->second);
        if (before == kNoAddress || before == addressOf(entry.service)) {
            return {entry, false, {}};
        }
        entry.moved = {before, entry.renewed};
        return {entry, false, std::move(before)};
    }
    if (entries_.size() >= options_.maxEntries) {
        throw StoreFull("the registry is full: it holds " + std::to_string(entries_.size()) +
                        " entries");
    }
    Entry entry;
    entry.uuid = to_string(boost::uuids::random_generator()());
    entry.path = std::move(path);
    entry.service = std::move(service);
    entry.created = std::chrono::system_clock::now();
    if (file_) {
        file_->add(entry);
    }
    return {add(std::move(entry)), true, {}};
}

const Entry& EntryStore::add(Entry entry) {
    entries_.push_back(std::move(entry));
    const auto added = std::prev(entries_.end());
    added->renewed = now();
    const Known known{added, renewals_.insert(renewals_.end(), added->uuid)};
    byUuid_.emplace(added->uuid, known);
    byPath_.emplace(added->path, known);
    return *added;
}

void EntryStore::renew(const Known& known) {
    known.entry->renewed = now();
    renewals_.splice(renewals_.end(), renewals_, known.renewal);
}

const Entry* EntryStore::find(std::string_view uuid) const {
    const auto found = byUuid_.find(uuid);
    return found == byUuid_.end() ? nullptr : &*found->second.entry;
}

bool EntryStore::check(std::string_view uuid) {
    const auto found = byUuid_.find(uuid);
    if (found == byUuid_.end()) {
        return false;
    }
    renew(found->second);
    Entry& entry = *found->second.entry;
    entry.checked = entry.renewed;
    ++entry.checks;
    return true;
}

std::optional<Entry> EntryStore::remove(std::string_view uuid) {
    const auto found = byUuid_.find(uuid);
    if (found == byUuid_.end()) {
        return std::nullopt;
    }
    if (file_) {
        file_->remove({std::string(uuid)});
    }
    return take(found);
}

Entry EntryStore::take(std::unordered_map<std::string_view, Known>::iterator known) {
    const auto [position, renewal] = known->second;
    byUuid_.erase(known);
    byPath_.erase(position->path);
    renewals_.erase(renewal);
    Entry taken = std::move(*position);
    entries_.erase(position);
    return taken;
}

void EntryStore::clear() {
    if (file_) {
        file_->clear();
    }
    byUuid_.clear();
    byPath_.clear();
    renewals_.clear();
    entries_.clear();
}

void EntryStore::expire() {
    if (options_.ttl.count() == 0) {
        return;
    }
    const Time oldest = now() - options_.ttl;
    std::vector<std::string> expired;
    for (const std::string_view uuid : renewals_) {
        if (byUuid_.at(uuid).entry->renewed > oldest) {
            break;
        }
        expired.emplace_back(uuid);
    }
    if (file_ && !expired.empty()) {
        file_->remove(expired);
    }
    for (const std::string& uuid : expired) {
        take(byUuid_.find(uuid));
    }
}

}  // namespace orvx::registry
