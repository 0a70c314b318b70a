#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "EntryStore.h"

namespace orvx::registry {

/// Carries out the changes of the entries, and finds entries. Where the entries are kept differs:
/// in the memory of this process, in a file, or at etcd for several replicas. The store is what
/// this process knows of them.
///
/// Each handler is called once, on the thread of the caller: from inside the call, or later.
///
/// Thread-safety: none; one thread at a time.
class EntryBackend {
  public:
    /// What is known of an entry. Unknown: the place where it is kept does not answer.
    enum class Presence { Present, Absent, Unknown };

    struct PutResult {
        Entry entry;
        bool created;             ///< false: the entry lived, and its service was replaced
        std::string movedFrom{};  ///< the address that was replaced by another one; empty: none
    };

    virtual ~EntryBackend() = default;

    virtual const EntryStore& store() const = 0;

    /// Makes `service` the service of the one entry of `path`. `done`: gets nothing when it is
    /// unknown whether that took place. Throws StoreFull, or a FileError.
    virtual void put(const std::string& path, const nlohmann::json& service, const Owner& owner,
                     std::function<void(std::optional<PutResult>)> done) = 0;

    /// Finds the entry of that name. `done`: the entry is not null if it is present, and is valid
    /// during the call.
    virtual void find(const std::string& uuid,
                      std::function<void(Presence, const Entry*)> done) = 0;

    /// Counts a check of an entry that find() has found, and renews it.
    virtual void check(const std::string& uuid) = 0;

    /// Takes out an entry that find() has found. `done`: whether it was there. Throws a FileError.
    virtual void remove(const Entry& entry, std::function<void(Presence)> done) = 0;

    /// Takes out the entries that were not renewed in time, unless the backend does so by itself.
    virtual void expire() = 0;

    /// Whether the store has been filled: before that it holds less than there is.
    virtual bool isLoaded() const = 0;

    /// Whether the store follows the changes that others make.
    virtual bool isCurrent() const = 0;

    /// Further metrics in Prometheus' text format.
    virtual std::string metrics() const = 0;
};

/// The backend whose entries are those of the store, in memory or in its file. All handlers are
/// called from inside the call.
class LocalBackend : public EntryBackend {
  public:
    /// `store`: outlives the backend.
    explicit LocalBackend(EntryStore& store) : store_(store) {}

    const EntryStore& store() const override { return store_; }
    void put(const std::string& path, const nlohmann::json& service, const Owner& owner,
             std::function<void(std::optional<PutResult>)> done) override;
    void find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) override;
    void check(const std::string& uuid) override { store_.check(uuid); }
    void remove(const Entry& entry, std::function<void(Presence)> done) override;
    /// While the file cannot be written its entries stay: it is tried again after a second.
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
