#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Entry.h"

namespace orvx::registry {

/// How the entries are kept at etcd, as docs/adr/0016-replicas-in-front-of-etcd.md describes it:
/// the keys, the values, and the requests to etcd's JSON gateway. No request is sent here.
///
/// Thread-safety: immutable.
class EtcdEntries {
  public:
    /// The one entry of a path, as the key of the path names it.
    struct Name {
        std::string uuid;
        std::chrono::system_clock::time_point created;
    };

    /// One event of a watch, or one key of a range.
    struct Change {
        enum class Kind { Put, Removal, Checks, Other };
        Kind kind = Kind::Other;
        std::uint64_t revision = 0;
        Entry entry{};                     ///< of Put
        std::string uuid{};                ///< of Removal
        std::string replica{};             ///< of Checks: the one that was asked
        std::vector<std::string> uuids{};  ///< of Checks
    };

    /// One transaction is limited to this many entries; etcd takes 128 operations.
    static constexpr std::size_t kMaxRemovals = 60;

    /// `prefix`: of all keys.
    explicit EtcdEntries(std::string prefix) : prefix_(std::move(prefix)) {}

    /// A transaction that puts the entry, and its path, if there is none of that path. Its answer
    /// tells nameIn() the entry that is there.
    nlohmann::json create(const Entry& entry) const;
    /// A transaction that puts the entry if it still is the one of its path, likewise.
    nlohmann::json replace(const Entry& entry) const;
    /// A transaction that takes out those entries, at most kMaxRemovals, if all of them are there.
    /// `isUnchanged`: and none was put since its etcdRevision.
    nlohmann::json remove(const std::vector<Entry>& entries, bool isUnchanged) const;
    /// A range of one entry. etcd answers with its latest state.
    nlohmann::json find(const std::string& uuid) const;
    /// A range of entries in the order of their keys. `afterKey`: empty for the first page.
    /// `revision`: 0 for the latest one.
    nlohmann::json list(const std::string& afterKey, std::size_t limit,
                        std::uint64_t revision) const;
    /// A put that tells all replicas of checks.
    nlohmann::json tellChecks(const std::string& replica,
                              const std::vector<std::string>& uuids) const;
    /// A watch of the entries and of the checks.
    nlohmann::json watch(std::uint64_t fromRevision) const;

    /// The revision at which a request was carried out.
    static std::uint64_t revisionOf(const nlohmann::json& answer);
    static std::string clusterOf(const nlohmann::json& answer);
    static bool hasSucceeded(const nlohmann::json& transaction);
    /// The last key of a range that goes on; otherwise empty.
    static std::string keyBeforeNextPage(const nlohmann::json& range);
    /// Whether etcd has ended a watch.
    static bool isCanceled(const nlohmann::json& result);
    /// The entry of the path that a transaction has found instead. Nothing: there is none.
    std::optional<Name> nameIn(const nlohmann::json& transaction) const;
    /// The entries of a range.
    std::vector<Entry> entriesIn(const nlohmann::json& range) const;
    /// The events of a watch. Events of keys and values that are none of ours are Other.
    std::vector<Change> changesIn(const nlohmann::json& result) const;

  private:
    nlohmann::json key(std::string_view kind, std::string_view name) const;
    nlohmann::json putIf(nlohmann::json condition, const Entry& entry) const;
    std::optional<Entry> entryIn(const nlohmann::json& pair) const;
    Change changeIn(const nlohmann::json& event) const;

    const std::string prefix_;
};

/// Whether the text has the form of the name of an entry.
bool isUuid(std::string_view text);

}  // namespace orvx::registry
