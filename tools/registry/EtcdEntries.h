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

/// Builds the requests to etcd's JSON gateway and reads its answers.
/// docs/adr/0016-replicas-in-front-of-etcd.md describes the keys and values. No request is sent
/// here.
///
/// Thread-safety: immutable.
class EtcdEntries {
  public:
    /// The state of a path's key.
    struct PathState {
        std::uint64_t revision = 0;  ///< of the key's last change; 0: the key does not exist
        std::string uuid{};          ///< of the path's entry; empty: there is none
        std::chrono::system_clock::time_point created{};  ///< time of the entry's creation
    };

    /// One event of a watch, or one key of a range.
    struct Change {
        enum class Kind { Put, Removal, Checks, Other };
        Kind kind = Kind::Other;
        std::uint64_t revision = 0;
        Entry entry{};                     ///< for Put
        std::string uuid{};                ///< for Removal
        std::string replica{};             ///< for Checks: the replica that received them
        std::vector<std::string> uuids{};  ///< for Checks: of the entries
    };

    /// Limit to the entries of one transaction: etcd accepts 128 operations.
    static constexpr std::size_t kMaxRemovals = 60;

    /// `prefix`: the begin of all keys.
    explicit EtcdEntries(std::string prefix) : prefix_(std::move(prefix)) {}

    /// How long the key of a path exists at most after its entry was removed.
    static constexpr std::chrono::seconds kPathRetention{3'600};

    // Each transaction has the condition that nothing has changed since the state that its sender
    // knows. A transaction that arrives late or twice therefore does nothing, even if it waited in
    // a stopped member. The key of a path exists longer than its entry, so that a late creation
    // fails, too.

    /// A transaction that puts the entry if the key of its path was last changed at that revision.
    /// Otherwise pathStateIn() reads the key's present state from the answer.
    nlohmann::json put(const Entry& entry, std::uint64_t revision) const;
    /// A transaction that removes at most kMaxRemovals entries if none of them has changed since
    /// its etcdRevision. Otherwise revisionsIn() reads the present revisions from the answer.
    /// `lease`: from grantLease(). `checks`: a revision; the transaction then also requires that no
    /// replica has written checks after it. 0: no such condition.
    nlohmann::json remove(const std::vector<Entry>& entries, const std::string& lease,
                          std::uint64_t checks) const;
    /// A request for a lease of kPathRetention. leaseIn() reads its id from the answer.
    static nlohmann::json grantLease();
    /// A range of one entry. etcd answers with the entry's latest state.
    nlohmann::json find(const std::string& uuid) const;
    /// A range of entries in the order of their keys. `afterKey`: empty for the first page.
    /// `revision`: 0 for the latest one.
    nlohmann::json list(const std::string& afterKey, std::size_t limit,
                        std::uint64_t revision) const;
    /// A put that informs all replicas of checks.
    nlohmann::json putChecks(const std::string& replica,
                             const std::vector<std::string>& uuids) const;
    /// A watch of the entries and of the checks.
    nlohmann::json watch(std::uint64_t fromRevision) const;

    /// The revision at which a request was carried out.
    static std::uint64_t revisionOf(const nlohmann::json& answer);
    static std::string clusterOf(const nlohmann::json& answer);
    static bool hasSucceeded(const nlohmann::json& transaction);
    /// The last key of a range that has a further page; otherwise empty.
    static std::string keyBeforeNextPage(const nlohmann::json& range);
    /// Whether etcd has ended a watch.
    static bool isCanceled(const nlohmann::json& result);
    static std::string leaseIn(const nlohmann::json& answer);
    /// The state of the path's key that made a put() fail.
    PathState pathStateIn(const nlohmann::json& transaction) const;
    /// By uuid, the revisions of the entries' last changes, after a remove() that failed. Entries
    /// that do not exist are missing.
    std::map<std::string, std::uint64_t> revisionsIn(const nlohmann::json& transaction) const;
    /// The entries of a range.
    std::vector<Entry> entriesIn(const nlohmann::json& range) const;
    /// The events of a watch. A put of a value that is no entry removes the entry of that key,
    /// since a list would not contain it either. An event of a key that this program does not write
    /// is Other.
    std::vector<Change> changesIn(const nlohmann::json& result) const;

  private:
    nlohmann::json key(std::string_view kind, std::string_view name) const;
    std::optional<Entry> entryIn(const nlohmann::json& pair) const;
    Change changeIn(const nlohmann::json& event) const;

    const std::string prefix_;
};

/// Whether the text is a uuid in lower case.
bool isUuid(std::string_view text);

}  // namespace orvx::registry
