#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Entry.h"

namespace orvx::registry {

class EntryFile;

/// What a store keeps, how long, and where.
struct StoreOptions {
    std::chrono::milliseconds ttl{0};  ///< an entry that is not renewed so long expires; 0: never
    std::size_t maxEntries = 100'000;
    std::string file;  ///< keeps the entries over a restart; empty: only in memory
    std::function<std::chrono::steady_clock::time_point()> clock = std::chrono::steady_clock::now;
    /// Called after each change that no request asked for, with the last state of the entry.
    std::function<void(Change, const Entry&)> listener{};
};

/// More than the store, or one owner, may hold.
class StoreFull : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The entries of a registry in the order of their creation, found by uuid and by path in constant
/// time. With a file a change is in the file before it is in memory: what throws changed nothing.
///
/// Every put, check and removal has a revision of its own, one more than the one before. The
/// entries are found by the revisions of their last put and their last renewal, so a reader that
/// knows the state of one revision finds what changed since then. The cost of a change does not
/// grow with the number of entries.
///
/// Thread-safety: none; one thread at a time. References to an entry hold until it is removed.
class EntryStore {
  public:
    using Time = std::chrono::steady_clock::time_point;

    struct PutResult {
        const Entry& entry;
        bool created;  ///< false: the entry of this path lived, and its service was replaced
        std::string movedFrom;  ///< the address that was replaced by another one; empty: none
    };

    struct Removal {
        std::uint64_t revision;
        std::string uuid;
    };

    /// How many removals are remembered.
    static constexpr std::size_t kMaxRemovals = 4'096;

    /// Throws a FileError when the file cannot be opened, or is none of this program's.
    explicit EntryStore(StoreOptions options = {});
    ~EntryStore();
    EntryStore(const EntryStore&) = delete;
    EntryStore& operator=(const EntryStore&) = delete;

    /// Throws StoreFull if a put of a service of that many bytes would exceed a limit.
    void requireRoom(const std::string& path, std::size_t bytes, const Owner& owner) const;

    /// Makes `service` the service of the one entry of `path`, which keeps its uuid and its place.
    /// Throws StoreFull, or a FileError.
    PutResult put(std::string path, const nlohmann::json& service, const Owner& owner = {});

    /// The entry of that name, or null. Owned by the store.
    const Entry* find(std::string_view uuid) const;

    /// The entry of that path, or null. Owned by the store.
    const Entry* findByPath(std::string_view path) const;

    /// Counts a check of the entry of that name and renews it. False: there is none.
    bool check(std::string_view uuid);

    /// Renews an entry that was checked at another replica. Does nothing when there is none.
    void renew(std::string_view uuid);

    /// Takes over an entry that another process keeps, with its uuid, number, path, service,
    /// address, owner, time of creation and etcdRevision. The same with the same uuid, or at the
    /// same path, is replaced. No file is written, and no limit applies.
    void adopt(Entry entry);

    /// Takes the entry of that name out. Empty: there is none. `how`: the listener is told unless
    /// it was withdrawn. Throws a FileError.
    std::optional<Entry> remove(std::string_view uuid, Change how = Change::Withdrawn);

    /// Takes all out: they are forgotten. Throws a FileError.
    void clear();

    /// Takes out what was not renewed for `ttl`. Nothing expires without this call. Throws a
    /// FileError.
    void expire();

    /// The names of the entries that were renewed last at that time or before.
    std::vector<std::string> notRenewedSince(Time time) const;

    const std::list<Entry>& entries() const { return entries_; }

    /// The first entry in the order of creation, which is that of the numbers and, for equal
    /// numbers, of the uuids, from that place on. Null: there is none. Owned by the store.
    const Entry* entryFrom(std::uint64_t number, std::string_view uuid = {}) const;

    /// An entry that another process keeps was taken out because it was not renewed.
    void recordExpiration(const Entry& entry);

    /// How many entries have expired in this process.
    std::uint64_t expirations() const { return expirations_; }

    /// Tells this store from those of other processes: revisions count in one store only.
    const std::string& instance() const { return instance_; }

    /// Tells the numbers of the entries from those of other stores: unless it was set, they count
    /// in this store only.
    const std::string& places() const { return places_; }
    void setPlaces(std::string places) { places_ = std::move(places); }

    /// The revision of the last change.
    std::uint64_t revision() const { return revision_; }

    /// The revision of the last change that was no check.
    std::uint64_t lastPutOrRemoval() const { return lastPutOrRemoval_; }

    /// What is next after a revision: the entry by its last put, the entry by its last renewal,
    /// and the removal. Null: there is none. Owned by the store.
    const Entry* nextPut(std::uint64_t after) const;
    const Entry* nextRenewal(std::uint64_t after) const;
    const Removal* nextRemoval(std::uint64_t after) const;

    /// Removals up to this revision are not remembered.
    std::uint64_t forgottenRevision() const { return forgottenRevision_; }

    const StoreOptions& options() const { return options_; }
    Time now() const { return options_.clock(); }

  private:
    // The keys of byUuid_ and byPath_ are of the strings in the list's nodes, which never move.
    using Position = std::list<Entry>::iterator;
    using ByName = std::unordered_map<std::string_view, Position>;
    using ByRevision = std::map<std::uint64_t, Position>;
    /// Entries that one transaction at etcd has created have the same number.
    using ByNumber = std::map<std::pair<std::uint64_t, std::string_view>, Position>;

    /// What the entries of one owner take.
    struct Usage {
        std::size_t entries = 0;
        std::uint64_t bytes = 0;
    };

    const Entry& add(Entry entry);
    void replace(Position entry, std::string service, std::string address, std::string owner);
    void requireRoom(const Owner& owner, std::uint64_t bytes, const Entry* replaced) const;
    void countUsage(const Entry& entry);
    void discountUsage(const Entry& entry);
    void renew(Position entry);
    void recordPut(Position entry);
    void recordRemoval(std::string uuid);
    Entry take(ByName::iterator known, Change how);

    const StoreOptions options_;
    std::unique_ptr<EntryFile> file_;
    std::list<Entry> entries_;
    ByName byUuid_;
    ByName byPath_;
    ByNumber byNumber_;
    std::unordered_map<std::string, Usage> usage_;  // by owner; of those that have entries

    const std::string instance_;
    std::string places_ = instance_;
    std::uint64_t created_ = 0;
    std::uint64_t expirations_ = 0;
    std::uint64_t revision_ = 0;
    std::uint64_t lastPutOrRemoval_ = 0;
    std::uint64_t forgottenRevision_ = 0;
    ByRevision byPut_;
    ByRevision byRenewal_;  // the entry that expires first in front
    std::deque<Removal> removals_;
};

}  // namespace orvx::registry
