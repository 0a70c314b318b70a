// The entries in a list, in the order of their creation, with an index for each way to find one.
// The indexes by revision grow at their end only, which takes constant time.
// Entered by whichever thread its owner uses, one at a time: the server's own, or a test's.
// There is no lock.

#include "EntryStore.h"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <utility>

#include "EntryFile.h"

namespace orvx::registry {

namespace {

constexpr const char* kNoAddress = "?:?";

std::string randomUuid() {
    return to_string(boost::uuids::random_generator()());
}

/// The entry that is first after a revision, in an index by revision.
template <typename Index>
const Entry* next(const Index& index, std::uint64_t after) {
    const auto found = index.upper_bound(after);
    return found == index.end() ? nullptr : &*found->second;
}

/// The entry of an index by revision becomes its last one.
template <typename Index, typename Position>
void moveToEnd(Index& index, std::uint64_t& revision, std::uint64_t last, Position entry) {
    index.erase(revision);
    revision = last;
    index.emplace_hint(index.end(), last, entry);
}

}  // namespace

std::string addressOf(const nlohmann::json& service) {
    const auto host = service.find("host");
    const auto port = service.find("port");
    return (host != service.end() && host->is_string() ? host->get<std::string>() : "?") + ':' +
           (port != service.end() && port->is_number() ? port->dump() : "?");
}

EntryStore::EntryStore(StoreOptions options)
    : options_(std::move(options)), instance_(randomUuid().substr(0, 8)) {
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
        Entry& entry = *known->second;
        if (file_) {
            file_->replace(entry.uuid, service);
        }
        std::string before = addressOf(entry.service);
        entry.service = std::move(service);
        recordPut(known->second);
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
    entry.uuid = randomUuid();
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
    added->number = ++created_;
    byUuid_.emplace(added->uuid, added);
    byPath_.emplace(added->path, added);
    recordPut(added);
    return *added;
}

void EntryStore::renew(Position entry) {
    entry->renewed = now();
    moveToEnd(byRenewal_, entry->renewalRevision, ++revision_, entry);
}

void EntryStore::recordPut(Position entry) {
    entry->size =
        entry->service.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).size();
    renew(entry);
    moveToEnd(byPut_, entry->putRevision, revision_, entry);
    lastPutOrRemoval_ = revision_;
}

void EntryStore::recordRemoval(std::string uuid) {
    removals_.push_back({++revision_, std::move(uuid)});
    lastPutOrRemoval_ = revision_;
    if (removals_.size() > kMaxRemovals) {
        forgottenRevision_ = removals_.front().revision;
        removals_.pop_front();
    }
}

const Entry* EntryStore::nextPut(std::uint64_t after) const {
    return next(byPut_, after);
}

const Entry* EntryStore::nextRenewal(std::uint64_t after) const {
    return next(byRenewal_, after);
}

const EntryStore::Removal* EntryStore::nextRemoval(std::uint64_t after) const {
    const auto found = std::upper_bound(
        removals_.begin(), removals_.end(), after,
        [](std::uint64_t revision, const Removal& removal) { return revision < removal.revision; });
    return found == removals_.end() ? nullptr : &*found;
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
    renew(found->second);
    Entry& entry = *found->second;
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

Entry EntryStore::take(ByName::iterator known) {
    const Position position = known->second;
    byUuid_.erase(known);
    byPath_.erase(position->path);
    byPut_.erase(position->putRevision);
    byRenewal_.erase(position->renewalRevision);
    Entry taken = std::move(*position);
    entries_.erase(position);
    recordRemoval(taken.uuid);
    return taken;
}

void EntryStore::clear() {
    if (file_) {
        file_->clear();
    }
    while (!entries_.empty()) {
        take(byUuid_.find(entries_.front().uuid));
    }
}

void EntryStore::expire() {
    if (options_.ttl.count() == 0) {
        return;
    }
    const Time oldest = now() - options_.ttl;
    std::vector<std::string> expired;
    for (const auto& [revision, entry] : byRenewal_) {
        if (entry->renewed > oldest) {
            break;
        }
        expired.push_back(entry->uuid);
    }
    if (file_ && !expired.empty()) {
        file_->remove(expired);
    }
    expirations_ += expired.size();
    for (const std::string& uuid : expired) {
        take(byUuid_.find(uuid));
    }
}

}  // namespace orvx::registry
