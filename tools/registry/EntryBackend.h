#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "EntryStore.h"

namespace orvx::registry {

/// Changes and finds entries. A backend keeps them in the memory of this process, in a file, or at
/// etcd for several replicas. The store holds the entries that this process knows.
///
/// Each handler is called once, on the caller's thread: from inside the call, or later. When a
/// backend stops, it may destroy handlers that it has not called.
///
/// Thread-safety: none; one thread at a time.
class EntryBackend {
  public:
    /// Whether an entry exists. Unknown: etcd does not answer.
    enum class Presence { Present, Absent, Unknown };

    struct PutResult {
        Entry entry;
        bool created;             ///< false: the entry existed, and its service was replaced
        std::string movedFrom{};  ///< the previous address, if it changed; otherwise empty
    };

    virtual ~EntryBackend() = default;

    virtual const EntryStore& store() const = 0;

    /// Creates the entry of `path` with this service, or replaces the service of the existing
    /// entry. `done` gets nothing if the result is unknown. Throws StoreFull, or a FileError.
    virtual void put(const std::string& path, const nlohmann::json& service, const Owner& owner,
                     std::function<void(std::optional<PutResult>)> done) = 0;

    /// Finds the entry with that uuid. `done` gets the entry if it is present, otherwise null. The
    /// pointer is valid during the call.
    virtual void find(const std::string& uuid,
                      std::function<void(Presence, const Entry*)> done) = 0;

    /// Counts a check of an entry that find() has found, and renews it.
    virtual void check(const std::string& uuid) = 0;

    /// Removes an entry that find() has found. `done` gets whether it existed. Throws a FileError.
    virtual void remove(const Entry& entry, std::function<void(Presence)> done) = 0;

    /// Removes the entries that were not renewed in time, unless the backend does so by itself.
    virtual void expire() = 0;

    /// Whether the store has been filled. Until then entries are missing from it.
    virtual bool isLoaded() const = 0;

    /// Whether the store is up to date with the changes of other processes.
    virtual bool isCurrent() const = 0;

    /// Further metrics in Prometheus' text format.
    virtual std::string metrics() const = 0;
};

/// A backend for entries that the store itself keeps, in memory or in its file. All handlers are
/// called from inside the call.
class LocalBackend : public EntryBackend {
  public:
    /// `store`: must outlive the backend.
    explicit LocalBackend(EntryStore& store) : store_(store) {}

    const EntryStore& store() const override { return store_; }
    void put(const std::string& path, const nlohmann::json& service, const Owner& owner,
             std::function<void(std::optional<PutResult>)> done) override;
    void find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) override;
    void check(const std::string& uuid) override { store_.check(uuid); }
    void remove(const Entry& entry, std::function<void(Presence)> done) override;
    /// While the file cannot be written, no entry expires; the attempt is repeated after a second.
    void expire() override;
    bool isLoaded() const override { return true; }
    bool isCurrent() const override { return true; }
    std::string metrics() const override { return {}; }

  private:
    EntryStore& store_;
    EntryStore::Time nextExpiry_{};
    bool hasFailed_ = false;
};

}  // namespace orvx::registry
