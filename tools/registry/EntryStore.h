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

/// Limits and storage of an EntryStore.
struct StoreOptions {
    std::chrono::milliseconds ttl{
        0};  ///< time after which an entry that is not renewed expires; 0: never
    std::size_t maxEntries = 100'000;
    std::string file;  ///< keeps the entries over a restart; empty: memory only
    std::function<std::chrono::steady_clock::time_point()> clock = std::chrono::steady_clock::now;
    /// Called with the last state of an entry that has expired or was forgotten.
    std::function<void(Change, const Entry&)> listener{};
};

/// A put would exceed a limit of the store or of the owner.
class StoreFull : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The entries of a registry in the order of their creation, found by uuid and by path in constant
/// time. With a file, a change is written to the file before it is made in memory, so a call that
/// throws has changed nothing.
///
/// Every put, check and removal increases the revision by one. The entries are indexed by the
/// revisions of their last put and their last renewal, so a reader that knows the state at one
/// revision finds all later changes. The cost of a change grows only with the depth of these
/// ordered indexes.
///
/// Thread-safety: none; one thread at a time. A reference to an entry is valid until the entry is
/// removed.
class EntryStore {
  public:
    using Time = std::chrono::steady_clock::time_point;

    struct PutResult {
        const Entry& entry;
        bool created;           ///< false: the path had an entry, whose service was replaced
        std::string movedFrom;  ///< the previous address, if it changed; otherwise empty
    };

    struct Removal {
        std::uint64_t revision;
        std::string uuid;
    };

    /// The number of removals that are remembered.
    static constexpr std::size_t kMaxRemovals = 4'096;

    /// Throws a FileError if the file cannot be opened, or is not a store of this program.
    explicit EntryStore(StoreOptions options = {});
    ~EntryStore();
    EntryStore(const EntryStore&) = delete;
    EntryStore& operator=(const EntryStore&) = delete;

    /// Throws StoreFull if a put of a service of `bytes` bytes would exceed a limit.
    void requireRoom(const std::string& path, std::size_t bytes, const Owner& owner) const;

    /// Creates the entry of `path`, or replaces the service of the existing entry, which keeps its
    /// uuid and its position. Throws StoreFull, or a FileError.
    PutResult put(std::string path, const nlohmann::json& service, const Owner& owner = {});

    /// The entry with that uuid, or null. Owned by the store.
    const Entry* find(std::string_view uuid) const;

    /// The entry of that path, or null. Owned by the store.
    const Entry* findByPath(std::string_view path) const;

    /// Counts a check of the entry with that uuid and renews it. Returns false if there is none.
    bool check(std::string_view uuid);

    /// Renews an entry that was checked at another replica. Does nothing if there is none.
    void renew(std::string_view uuid);

    /// Adds an entry that is kept at etcd, with its uuid, number, path, service, address, owner,
    /// time of creation and etcdRevision. If the entry exists already, only its service, address,
    /// owner and etcdRevision are replaced. An entry with the same path and another uuid, or the
    /// same uuid and another path or number, is removed first. No file is written, and no limit
    /// applies.
    void adopt(Entry entry);

    /// Removes the entry with that uuid and returns it; nothing if there is none. The listener is
    /// called unless `how` is Withdrawn. Throws a FileError.
    std::optional<Entry> remove(std::string_view uuid, Change how = Change::Withdrawn);

    /// Removes all entries as forgotten. Throws a FileError.
    void clear();

    /// Removes the entries that were not renewed for `ttl`. No entry expires without this call.
    /// Throws a FileError.
    void expire();

    /// The uuids of the entries whose last renewal was at that time or before.
    std::vector<std::string> notRenewedSince(Time time) const;

    const std::list<Entry>& entries() const { return entries_; }

    /// The first entry at or after a position in the order of creation: the order of the numbers
    /// and, for equal numbers, of the uuids. Null if there is none. Owned by the store.
    const Entry* entryFrom(std::uint64_t number, std::string_view uuid = {}) const;

    /// Counts the expiry of an entry that is kept at etcd, and calls the listener. The entry itself
    /// is removed by remove().
    void recordExpiration(const Entry& entry);

    /// The number of entries that have expired in this process.
    std::uint64_t expirations() const { return expirations_; }

    /// Identifies this store. A revision has a meaning only together with it.
    const std::string& instance() const { return instance_; }

    /// Identifies the numbering of the entries: instance(), or the id of the etcd cluster, whose
    /// replicas all use the same numbers.
    const std::string& places() const { return places_; }
    void setPlaces(std::string places) { places_ = std::move(places); }

    /// The revision of the last change.
    std::uint64_t revision() const { return revision_; }

    /// The revision of the last put or removal.
    std::uint64_t lastPutOrRemoval() const { return lastPutOrRemoval_; }

    /// The first put, renewal or removal after a revision. An entry counts with its last put and
    /// its last renewal. Null if there is none. Owned by the store.
    const Entry* nextPut(std::uint64_t after) const;
    const Entry* nextRenewal(std::uint64_t after) const;
    const Removal* nextRemoval(std::uint64_t after) const;

    /// Removals up to this revision are no longer remembered.
    std::uint64_t forgottenRevision() const { return forgottenRevision_; }

    const StoreOptions& options() const { return options_; }
    Time now() const { return options_.clock(); }

  private:
    // The keys of byUuid_ and byPath_ refer to strings in the list's nodes, which never move.
    using Position = std::list<Entry>::iterator;
    using ByName = std::unordered_map<std::string_view, Position>;
    using ByRevision = std::map<std::uint64_t, Position>;
    /// Entries that one transaction at etcd has created share a number.
    using ByNumber = std::map<std::pair<std::uint64_t, std::string_view>, Position>;

    /// The number and the size of one owner's entries.
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
    std::unordered_map<std::string, Usage> usage_;  // by owner, for owners that have entries

    const std::string instance_;
    std::string places_ = instance_;
    std::uint64_t created_ = 0;
    std::uint64_t expirations_ = 0;
    std::uint64_t revision_ = 0;
    std::uint64_t lastPutOrRemoval_ = 0;
    std::uint64_t forgottenRevision_ = 0;
    ByRevision byPut_;
    ByRevision byRenewal_;  // the entry that expires first is the first
    std::deque<Removal> removals_;
};

}  // namespace orvx::registry
