#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace orvx::registry {

/// One registered service.
struct Entry {
    std::string uuid;        ///< random (version 4), lower case; the name of the entry
    std::string path;        ///< the request target it was put at, byte by byte
    nlohmann::json service;  ///< the object that was put there last
    std::uint64_t checks;    ///< how often it was asked whether it is there
};

/// The entries of a registry in the order of their creation, found by uuid and by path in constant
/// time.
///
/// Thread-safety: none; one thread at a time. References to an entry hold until it is removed.
class EntryStore {
  public:
    struct PutResult {
        const Entry& entry;
        bool created;  ///< false: the entry of this path lived, and its service was replaced
    };

    /// Makes `service` the service of the one entry of `path`, which keeps its uuid and its place.
    PutResult put(std::string path, nlohmann::json service);

    /// The entry of that name, or null. Owned by the store.
    const Entry* find(std::string_view uuid) const;

    /// Counts a check of the entry of that name. False: there is none.
    bool check(std::string_view uuid);

    /// Takes the entry of that name out. Empty: there is none.
    std::optional<Entry> remove(std::string_view uuid);

    const std::list<Entry>& entries() const { return entries_; }

  private:
    // The keys are views of the strings inside the list's nodes, which never move.
    using Index = std::unordered_map<std::string_view, std::list<Entry>::iterator>;

    std::list<Entry> entries_;
    Index byUuid_;
    Index byPath_;
};

}  // namespace orvx::registry
