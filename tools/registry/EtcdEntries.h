#pragma once

#include <chrono>
#include <cstdint>
#include <map>
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
    /// What the key of a path holds.
    struct Place {
        std::uint64_t revision = 0;  ///< of its last change; 0: there is no such key
        std::string uuid{};          ///< of the one entry of the path; empty: there is none
        std::chrono::system_clock::time_point created{};  ///< of that entry
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

    /// How long the key of a path remembers that its entry was taken out.
    static constexpr std::chrono::seconds kMemory{3'600};

    // Each transaction demands that nothing has changed since the state that its sender knows. So
    // one that arrives late, or twice, does nothing, even if it waited in a member that slept. The
    // key of a path is kept for a while after its entry, so that a late creation fails as well.

    /// A transaction that puts the entry if the key of its path was changed last at that revision.
    /// Its answer tells placeIn() otherwise.
    nlohmann::json put(const Entry& entry, std::uint64_t revision) const;
    /// A transaction that takes out those entries, at most kMaxRemovals, if none of them has
    /// changed since its etcdRevision. Its answer tells revisionsIn() otherwise. `lease`: of
    /// grantLease(). `checks`: the revision at which checks were told last, if no replica may
    /// have told others since; 0: it does not matter.
    nlohmann::json remove(const std::vector<Entry>& entries, const std::string& lease,
                          std::uint64_t checks) const;
    /// A lease of kMemory; its name is leaseIn() the answer.
    static nlohmann::json grantLease();
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
    static std::string leaseIn(const nlohmann::json& answer);
    /// What put() has found instead.
    Place placeIn(const nlohmann::json& transaction) const;
    /// By uuid, the revisions of the last changes of the entries that remove() has found instead.
    std::map<std::string, std::uint64_t> revisionsIn(const nlohmann::json& transaction) const;
    /// The entries of a range.
    std::vector<Entry> entriesIn(const nlohmann::json& range) const;
    /// The events of a watch. Events of keys and values that are none of ours are Other.
    std::vector<Change> changesIn(const nlohmann::json& result) const;

  private:
    nlohmann::json key(std::string_view kind, std::string_view name) const;
    std::optional<Entry> entryIn(const nlohmann::json& pair) const;
    Change changeIn(const nlohmann::json& event) const;

    const std::string prefix_;
};

/// Whether the text has the form of the name of an entry.
bool isUuid(std::string_view text);

}  // namespace orvx::registry
