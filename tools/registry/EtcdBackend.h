#pragma once

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "EntryBackend.h"
#include "EtcdClient.h"
#include "EtcdEntries.h"

namespace orvx::registry {

/// Keeps the entries at etcd, where any number of replicas share them. The store is a copy that
/// follows etcd's watch, and changes with it only. docs/adr/0016-replicas-in-front-of-etcd.md
/// describes what holds.
///
/// Every interval() this replica writes to etcd which entries were checked here. When the copy has
/// got that write from the watch, it has got every change before it: so the same write tells
/// whether the copy is current, and which entries no replica has renewed. The copy is current while
/// the last write that it got back began no longer ago than longestLag().
///
/// Thread-safety: the thread that runs the io_context only.
class EtcdBackend : public EntryBackend {
  public:
    /// `store`: empty; outlives the backend. `changed`: called after changes of the store. Throws a
    /// FileError for a file of TLS. Nothing is sent before the io_context runs.
    EtcdBackend(boost::asio::io_context& context, const EtcdOptions& options,
                const std::string& prefix, EntryStore& store, std::function<void()> changed);
    EtcdBackend(const EtcdBackend&) = delete;
    EtcdBackend& operator=(const EtcdBackend&) = delete;

    /// For one request at one member, so that a silent member does not make the copy old.
    static std::chrono::milliseconds tryTimeout(std::chrono::milliseconds ttl) {
        return ttl.count() == 0
                   ? std::chrono::milliseconds(1'000)
                   : std::clamp<std::chrono::milliseconds>(ttl / 18, std::chrono::milliseconds(500),
                                                           std::chrono::milliseconds(1'000));
    }

    const EntryStore& store() const override { return store_; }

    /// `done` is called when the copy has the entry, or about kLongestWait later.
    void put(const std::string& path, const nlohmann::json& service, const Owner& owner,
             std::function<void(std::optional<PutResult>)> done) override;

    /// An entry that the copy does not hold is looked for at etcd.
    void find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) override;

    void check(const std::string& uuid) override;

    /// `done` is called when the copy does not have the entry any more, or about kLongestWait
    /// later.
    void remove(const Entry& entry, std::function<void(Presence)> done) override;

    void expire() override {}
    bool isLoaded() const override { return isLoaded_; }
    bool isCurrent() const override;
    std::string metrics() const override;

    /// Tells etcd of the last checks, and ends everything else. Handlers that were not called are
    /// destroyed. After two seconds at the latest only a lookup of a name keeps the io_context
    /// running.
    void stop();

  private:
    using Time = EntryStore::Time;
    using Json = nlohmann::json;
    using PutHandler = std::function<void(std::optional<PutResult>)>;

    static constexpr std::chrono::seconds kLongestWait{1};
    static constexpr std::size_t kMaxChecks = 10'000;  // in one write
    /// The largest entries of a page are shorter than the longest answer.
    static constexpr std::size_t kLongestPage = 40;

    // The copy
    void load();
    void loadAfter(const std::string& key, std::uint64_t revision);
    void requireCluster(const std::string& id);
    bool isReplaced(const EtcdClient::Result& result);
    void takeOver(std::uint64_t revision);
    void follow();
    void apply(const Json& result);
    void apply(EtcdEntries::Change& change);
    void reach(std::uint64_t revision);
    void later(std::function<void()> next);

    // Changes
    void putWhenLoaded(const std::string& path, const Json& service, const Owner& owner,
                       PutHandler done);
    void tryToPut(PutResult wanted, std::uint64_t revision, Time until, PutHandler done);
    void onPut(PutResult wanted, Time until, PutHandler done, const EtcdClient::Result& result);
    void tryToRemove(Entry entry, Time until, std::function<void(Presence)> done);
    void callToRemove(std::vector<Entry> entries, std::uint64_t checks, EtcdClient::Handler done);
    void requireGone(const Entry& entry, std::uint64_t revision);
    void whenReached(std::uint64_t revision, std::function<void()> done);

    // Checks and expiry
    std::chrono::milliseconds interval() const;
    std::chrono::milliseconds longestLag() const;
    std::chrono::milliseconds round() const { return store_.options().ttl / 8; }
    std::chrono::milliseconds limit() const { return store_.options().ttl + round() + interval(); }
    void beat();
    void beatAfter(std::chrono::milliseconds pause);
    void tellChecks();
    void onTold(Time begin, std::uint64_t before, const Json& answer);
    void onCurrent(Time begin);
    void expire(std::vector<std::string> names, Time since);
    void report(const std::string& error);
    void tellLastChecks();
    void close();

    EntryStore& store_;
    const std::function<void()> changed_;
    const EtcdEntries entries_;
    const std::string replica_;
    EtcdClient client_;   // for what clients ask for
    EtcdClient control_;  // for the list, the watch and the checks, which must not wait for them
    boost::asio::steady_timer beat_;
    boost::asio::steady_timer retry_;

    std::string cluster_;            // whose entries are listed; empty: not known yet
    std::set<std::string> foreign_;  // the members of other clusters that were reported

    bool isLoaded_ = false;
    bool isLoading_ = false;
    std::uint64_t loads_ = 0;     // begun
    std::vector<Entry> listed_;   // until the copy is loaded
    std::uint64_t revision_ = 0;  // of the copy
    int fruitlessWatches_ = 0;    // in a row
    std::size_t page_ = kLongestPage;
    std::uint64_t checksRevision_ = 0;  // of the last checks that were told

    /// What waits until the copy has reached a revision, or until a time.
    struct Waiter {
        Time until;
        std::function<void()> done;
    };
    std::multimap<std::uint64_t, Waiter> waiters_;
    std::unordered_map<std::string, std::vector<std::function<void(Presence, const Entry*)>>>
        misses_;

    std::string lease_;  // of the paths whose entries were removed
    std::optional<Time> leaseBegin_{};

    std::unordered_set<std::string> checked_;  // in this round
    std::unordered_set<std::string> untold_;   // those that etcd does not know yet
    Time roundBegin_{};
    bool isTelling_ = false;
    std::map<std::uint64_t, Time> told_;  // by revision: when the write began
    std::optional<Time> current_{};       // when the last write began that came back
    Time currentSince_{};                 // when the copy was not current last
    const Time begin_ = store_.now();
    bool isExpiring_ = false;

    bool isStopped_ = false;
    bool isReported_ = false;
    std::uint64_t lookups_ = 0;
};

}  // namespace orvx::registry
