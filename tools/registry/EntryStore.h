#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
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
};

/// One more entry than the store may hold.
class StoreFull : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The entries of a registry in the order of their creation, found by uuid and by path in constant
/// time. With a file a change is in the file before it is in memory: what throws changed nothing.
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

    /// Throws a FileError when the file cannot be opened, or is none of this program's.
    explicit EntryStore(StoreOptions options = {});
    ~EntryStore();
    EntryStore(const EntryStore&) = delete;
    EntryStore& operator=(const EntryStore&) = delete;

    /// Makes `service` the service of the one entry of `path`, which keeps its uuid and its place.
    /// Throws StoreFull, or a FileError.
    PutResult put(std::string path, nlohmann::json service);

    /// The entry of that name, or null. Owned by the store.
    const Entry* find(std::string_view uuid) const;

    /// Counts a check of the entry of that name and renews it. False: there is none.
    bool check(std::string_view uuid);

    /// Takes the entry of that name out. Empty: there is none. Throws a FileError.
    std::optional<Entry> remove(std::string_view uuid);

    /// Takes all out. Throws a FileError.
    void clear();

    /// Takes out what was not renewed for `ttl`. Nothing expires without this call. Throws a
    /// FileError.
    void expire();

    const std::list<Entry>& entries() const { return entries_; }
    const StoreOptions& options() const { return options_; }
    Time now() const { return options_.clock(); }

  private:
    // The keys, and the views in renewals_, are of the strings in the list's nodes, which never
    // move.
    using Position = std::list<Entry>::iterator;
    struct Known {
        Position entry;
        std::list<std::string_view>::iterator renewal;
    };

    const Entry& add(Entry entry);
    void renew(const Known& known);
    Entry take(std::unordered_map<std::string_view, Known>::iterator known);

    const StoreOptions options_;
    std::unique_ptr<EntryFile> file_;
    std::list<Entry> entries_;
    std::list<std::string_view> renewals_;  // uuids, the one that expires first in front
    std::unordered_map<std::string_view, Known> byUuid_;
    std::unordered_map<std::string_view, Known> byPath_;
};

}  // namespace orvx::registry
