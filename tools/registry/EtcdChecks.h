#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "EntryStore.h"

namespace orvx::registry {

/// The checks at this replica that are not written to etcd yet, and the writes of checks that
/// etcd's watch has not brought back yet. Decides whether the copy is current, and which entries
/// have expired. Sends nothing.
///
/// Thread-safety: none.
class EtcdChecks {
  public:
    using Time = EntryStore::Time;

    /// `store`: the copy; must outlive this object.
    explicit EtcdChecks(const EntryStore& store) : store_(store) {}

    /// The time between two writes.
    std::chrono::milliseconds interval() const;

    /// Adds a check, unless the entry was added in this round before.
    void add(const std::string& uuid);
    void beginRoundIfDue();
    bool isEmpty() const { return unwritten_.empty(); }
    /// Whether take() would return as many checks as it ever does.
    bool isFull() const { return unwritten_.size() >= kMaxChecks; }
    /// Takes the checks for one write.
    std::vector<std::string> take();
    /// Adds the checks of a write that has failed.
    void giveBack(const std::vector<std::string>& uuids) {
        unwritten_.insert(uuids.begin(), uuids.end());
    }

    /// Adds a write that began at `begin` and has that revision.
    void addWrite(std::uint64_t revision, Time begin) { writes_.emplace(revision, begin); }
    /// Whether the watch should have brought a write back.
    bool isWatchSilent() const;
    void dropWrites() { writes_.clear(); }
    /// Drops the writes: the copy was listed.
    void restart();
    /// Takes the first write that the copy has, if its revision is at most `revision`, and returns
    /// its begin: the copy has every change that was made before. To be repeated until there is
    /// none.
    std::optional<Time> reach(std::uint64_t revision);

    /// Whether the last write that came back began at most longestLag() ago.
    bool isCurrent() const;
    /// The age of the last state that the copy has completely.
    Time::duration lag() const { return store_.now() - current_.value_or(begin_); }
    /// `begin`: from reach(). Entries that have not been renewed since the returned time have
    /// expired; nothing if the copy was not current for long enough, or if no entry expires.
    std::optional<Time> expiryLimit(Time begin) const;

  private:
    static constexpr std::size_t kMaxChecks = 10'000;  // for one write

    std::chrono::milliseconds longestLag() const;
    std::chrono::milliseconds round() const { return store_.options().ttl / 8; }
    std::chrono::milliseconds expiryAge() const {
        return store_.options().ttl + round() + interval();
    }

    const EntryStore& store_;
    const Time begin_ = store_.now();
    std::unordered_set<std::string> checked_{};    // entries, in this round
    std::unordered_set<std::string> unwritten_{};  // checked entries that are not written yet
    Time roundBegin_{};
    std::map<std::uint64_t, Time> writes_{};  // by revision: the time at which the write began
    std::optional<Time> current_{};  // the time at which the last write that came back began
    Time currentSince_{};            // the time since which the copy is current
};

}  // namespace orvx::registry
