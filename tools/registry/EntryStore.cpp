// The entries in a list, in the order of their creation, with an index for each way to find one.
// Entered by whichever thread its owner uses, one at a time: the server's own, or a test's.
// There is no lock.

#include "EntryStore.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <utility>

namespace orvx::registry {

EntryStore::PutResult EntryStore::put(std::string path, nlohmann::json service) {
    if (const auto known = byPath_.find(path); known != byPath_.end()) {
        Entry& entry = *known->second;
        entry.service = std::move(service);
        return {entry, false};
    }
    std::string uuid = to_string(boost::uuids::random_generator()());
    entries_.push_back({std::move(uuid), std::move(path), std::move(service), 0});
    const auto added = std::prev(entries_.end());
    byUuid_.emplace(added->uuid, added);
    byPath_.emplace(added->path, added);
    return {*added, true};
}

const Entry* EntryStore::find(std::string_view uuid) const {
    const auto found = byUuid_.find(uuid);
    return found == byUuid_.end() ? nullptr : &*found->second;
}

bool EntryStore::check(std::string_view uuid) {
    const auto found = byUuid_.find(uuid);
    if (found == byUuid_.end()) {
        return false;
    }
    ++found->second->checks;
    return true;
}

std::optional<Entry> EntryStore::remove(std::string_view uuid) {
    const auto found = byUuid_.find(uuid);
    if (found == byUuid_.end()) {
        return std::nullopt;
    }
    const auto position = found->second;
    byUuid_.erase(found);
    byPath_.erase(position->path);
    Entry removed = std::move(*position);
    entries_.erase(position);
    return removed;
}

}  // namespace orvx::registry
