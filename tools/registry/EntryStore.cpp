// The entries are a list in the order in which they were added, with an index for each kind of
// search. The indexes by revision grow only at their end, where an insertion takes constant time; a
// removal takes logarithmic time.
// Runs on the thread that owns the store: the server's, or a test's.
// There is no lock.

#include "EntryStore.h"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <nlohmann/json.hpp>
#include <utility>

#include "EntryFile.h"

namespace orvx::registry {

namespace {

constexpr const char* kNoAddress = "?:?";
constexpr std::size_t kLongestHost = 300;  // longer than any name in the DNS
constexpr std::size_t kLongestText = 200;  // in a summary

std::uint64_t bytesOf(const Entry& entry) {
    return entry.path.size() + entry.service.size();
}

/// Called once for each put, since many readers of the stream may get the same summary.
void summarize(Entry& entry) {
    entry.summary = isLong(entry) ? summaryOf(entry.service) : std::string();
}

/// The first entry after a revision in an index by revision.
template <typename Index>
const Entry* next(const Index& index, std::uint64_t after) {
    const auto found = index.upper_bound(after);
    return found == index.end() ? nullptr : &*found->second;
}

/// Makes an entry the last one of an index by revision.
template <typename Index, typename Position>
void moveToEnd(Index& index, std::uint64_t& revision, std::uint64_t last, Position entry) {
    index.erase(revision);
    revision = last;
    index.emplace_hint(index.end(), last, entry);
}

}  // namespace

std::string serialize(const nlohmann::json& service) {
    return service.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool isLong(const Entry& entry) {
    // A byte of the path that is not UTF-8 is replaced by three bytes.
    return entry.service.size() + 3 * entry.path.size() > kLongestShownWhole;
}

std::string shortened(const std::string& text) {
    if (text.size() <= kLongestText) {
        return text;
    }
    std::size_t size = kLongestText;
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
        --size;
    }
    return text.substr(0, size) + "…";
}

std::string summaryOf(std::string_view service) {
    const auto fields = nlohmann::json::parse(service);
    auto summary = nlohmann::json::object();
    for (const char* name : {"name", "uri", "host", "port"}) {
        const auto value = fields.find(name);
        if (value != fields.end() && value->is_string()) {
            summary[name] = shortened(value->get_ref<const std::string&>());
        } else if (value != fields.end() && value->is_number()) {
            summary[name] = *value;
        }
    }
    return serialize(summary);
}

std::string randomUuid() {
    return to_string(boost::uuids::random_generator()());
}

std::string addressOf(const nlohmann::json& service) {
    const auto host = service.find("host");
    const auto port = service.find("port");
    return (host != service.end() && host->is_string()
                ? host->get_ref<const std::string&>().substr(0, kLongestHost)
                : "?") +
           ':' + (port != service.end() && port->is_number() ? port->dump() : "?");
}

bool hasMoved(const std::string& before, const std::string& now) {
    return before != kNoAddress && before != now;
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

EntryStore::PutResult EntryStore::put(std::string path, const nlohmann::json& service,
                                      const Owner& owner) {
    std::string text = serialize(service);
    requireRoom(path, text.size(), owner);
    const auto known = byPath_.find(path);
    if (known == byPath_.end()) {
        Entry entry;
        entry.uuid = randomUuid();
        entry.path = std::move(path);
        entry.service = std::move(text);
        entry.address = addressOf(service);
        entry.owner = owner.name;
        entry.created = std::chrono::system_clock::now();
        if (file_) {
            file_->add(entry);
        }
        return {add(std::move(entry)), true, {}};
    }
    Entry& entry = *known->second;
    if (file_) {
        file_->replace(entry.uuid, text, owner.name);
    }
    const std::string before = entry.address;
    replace(known->second, std::move(text), addressOf(service), owner.name);
    return {entry, false, hasMoved(before, entry.address) ? before : std::string()};
}

void EntryStore::replace(Position position, std::string service, std::string address,
                         std::string owner) {
    Entry& entry = *position;
    discountUsage(entry);
    entry.service = std::move(service);
    summarize(entry);
    entry.owner = std::move(owner);
    countUsage(entry);
    const std::string before = std::exchange(entry.address, std::move(address));
    if (hasMoved(before, entry.address)) {
        entry.moved = {before, now()};
    }
    recordPut(position);
}

void EntryStore::adopt(Entry entry) {
    const auto samePath = byPath_.find(entry.path);
    if (samePath != byPath_.end() && samePath->second->uuid != entry.uuid) {
        take(byUuid_.find(samePath->second->uuid), Change::Withdrawn);
    }
    auto known = byUuid_.find(entry.uuid);
    if (known != byUuid_.end() &&
        (known->second->path != entry.path || known->second->number != entry.number)) {
        take(known, Change::Withdrawn);
        known = byUuid_.end();
    }
    if (known == byUuid_.end()) {
        add(std::move(entry));
        return;
    }
    known->second->etcdRevision = entry.etcdRevision;
    replace(known->second, std::move(entry.service), std::move(entry.address),
            std::move(entry.owner));
}

void EntryStore::requireRoom(const std::string& path, std::size_t bytes, const Owner& owner) const {
    const Entry* const replaced = findByPath(path);
    if (replaced == nullptr && entries_.size() >= options_.maxEntries) {
        throw StoreFull("the registry is full: it holds " + std::to_string(entries_.size()) +
                        " entries");
    }
    requireRoom(owner, path.size() + bytes, replaced);
}

void EntryStore::requireRoom(const Owner& owner, std::uint64_t bytes, const Entry* replaced) const {
    if (owner.name.empty()) {
        return;
    }
    const auto known = usage_.find(owner.name);
    Usage usage = known == usage_.end() ? Usage{} : known->second;
    const bool isOwned = replaced != nullptr && replaced->owner == owner.name;
    if (isOwned) {
        usage.bytes -= bytesOf(*replaced);
    }
    if (!isOwned && usage.entries >= owner.maxEntries) {
        throw StoreFull("the token " + owner.name + " is full: it holds " +
                        std::to_string(usage.entries) + " entries");
    }
    if (bytes > owner.maxBytes || usage.bytes > owner.maxBytes - bytes) {
        throw StoreFull("the token " + owner.name + " is full: its entries take " +
                        std::to_string(usage.bytes) + " bytes");
    }
}

void EntryStore::countUsage(const Entry& entry) {
    if (!entry.owner.empty()) {
        Usage& usage = usage_[entry.owner];
        ++usage.entries;
        usage.bytes += bytesOf(entry);
    }
}

void EntryStore::discountUsage(const Entry& entry) {
    const auto usage = usage_.find(entry.owner);
    if (usage == usage_.end()) {
        return;
    }
    usage->second.bytes -= bytesOf(entry);
    if (--usage->second.entries == 0) {
        usage_.erase(usage);
    }
}

const Entry& EntryStore::add(Entry entry) {
    summarize(entry);
    entries_.push_back(std::move(entry));
    const auto added = std::prev(entries_.end());
    if (added->number == 0) {
        added->number = ++created_;
    }
    byUuid_.emplace(added->uuid, added);
    byPath_.emplace(added->path, added);
    byNumber_.emplace_hint(byNumber_.end(), ByNumber::key_type(added->number, added->uuid), added);
    countUsage(*added);
    recordPut(added);
    return *added;
}

void EntryStore::renew(Position entry) {
    entry->renewed = now();
    moveToEnd(byRenewal_, entry->renewalRevision, ++revision_, entry);
}

void EntryStore::recordPut(Position entry) {
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

const Entry* EntryStore::entryFrom(std::uint64_t number, std::string_view uuid) const {
    const auto found = byNumber_.lower_bound({number, uuid});
    return found == byNumber_.end() ? nullptr : &*found->second;
}

const Entry* EntryStore::find(std::string_view uuid) const {
    const auto found = byUuid_.find(uuid);
    return found == byUuid_.end() ? nullptr : &*found->second;
}

const Entry* EntryStore::findByPath(std::string_view path) const {
    const auto found = byPath_.find(path);
    return found == byPath_.end() ? nullptr : &*found->second;
}

void EntryStore::renew(std::string_view uuid) {
    const auto found = byUuid_.find(uuid);
    if (found != byUuid_.end()) {
        renew(found->second);
        found->second->checked = found->second->renewed;
    }
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

std::optional<Entry> EntryStore::remove(std::string_view uuid, Change how) {
    const auto found = byUuid_.find(uuid);
    if (found == byUuid_.end()) {
        return std::nullopt;
    }
    if (file_) {
        file_->remove({std::string(uuid)});
    }
    return take(found, how);
}

Entry EntryStore::take(ByName::iterator known, Change how) {
    const Position position = known->second;
    byUuid_.erase(known);
    byPath_.erase(position->path);
    byNumber_.erase({position->number, position->uuid});
    discountUsage(*position);
    byPut_.erase(position->putRevision);
    byRenewal_.erase(position->renewalRevision);
    Entry taken = std::move(*position);
    entries_.erase(position);
    recordRemoval(taken.uuid);
    if (how != Change::Withdrawn && options_.listener) {
        options_.listener(how, taken);
    }
    return taken;
}

void EntryStore::clear() {
    if (file_) {
        file_->clear();
    }
    while (!entries_.empty()) {
        take(byUuid_.find(entries_.front().uuid), Change::Forgotten);
    }
}

std::vector<std::string> EntryStore::notRenewedSince(Time time) const {
    std::vector<std::string> found;
    for (const auto& [revision, entry] : byRenewal_) {
        if (entry->renewed > time) {
            break;
        }
        found.push_back(entry->uuid);
    }
    return found;
}

void EntryStore::recordExpiration(const Entry& entry) {
    ++expirations_;
    if (options_.listener) {
        options_.listener(Change::Expired, entry);
    }
}

void EntryStore::expire() {
    if (options_.ttl.count() == 0) {
        return;
    }
    const std::vector<std::string> expired = notRenewedSince(now() - options_.ttl);
    if (file_ && !expired.empty()) {
        file_->remove(expired);
    }
    expirations_ += expired.size();
    for (const std::string& uuid : expired) {
        take(byUuid_.find(uuid), Change::Expired);
    }
}

}  // namespace orvx::registry
