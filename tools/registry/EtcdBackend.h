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
#include <vector>

#include "EntryBackend.h"
#include "EtcdChecks.h"
#include "EtcdClient.h"
#include "EtcdEntries.h"

namespace orvx::registry {

/// Keeps the entries at etcd, where any number of replicas share them. The store is a copy, which
/// only a list from etcd and the events of etcd's watch change.
/// docs/adr/0016-replicas-in-front-of-etcd.md describes the guarantees.
///
/// In every interval this replica writes to etcd which entries were checked here. When the watch
/// brings this write back, the copy has all earlier changes. The write therefore shows whether the
/// copy is current, and which entries no replica has renewed. EtcdChecks decides both.
///
/// EtcdBackend.cpp: the copy, state and stop; EtcdChanges.cpp: changes and lookups for clients;
/// EtcdExpiry.cpp: writing checks, and expiry.
///
/// Thread-safety: the thread that runs the io_context only.
class EtcdBackend : public EntryBackend {
  public:
    /// `store`: empty; must outlive the backend. `changed`: called after changes of the store.
    /// Throws a FileError for a file of TLS that cannot be used. Nothing is sent before the
    /// io_context runs.
    EtcdBackend(boost::asio::io_context& context, const EtcdOptions& options,
                const std::string& prefix, EntryStore& store, std::function<void()> changed);
    EtcdBackend(const EtcdBackend&) = delete;
    EtcdBackend& operator=(const EtcdBackend&) = delete;

    /// The time limit for one request to one member. It is so short that one silent member does not
    /// make the copy outdated.
    static std::chrono::milliseconds tryTimeout(std::chrono::milliseconds ttl) {
        return ttl.count() == 0
                   ? std::chrono::milliseconds(1'000)
                   : std::clamp<std::chrono::milliseconds>(ttl / 18, std::chrono::milliseconds(500),
                                                           std::chrono::milliseconds(1'000));
    }

    const EntryStore& store() const override { return store_; }

    /// `done` is called when the copy has the entry, or about kLongestWait after etcd's answer.
    void put(const std::string& path, const nlohmann::json& service, const Owner& owner,
             std::function<void(std::optional<PutResult>)> done) override;

    /// Asks etcd for an entry that is not in the copy.
    void find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) override;

    void check(const std::string& uuid) override;

    /// `done` is called when the copy no longer has the entry, or about kLongestWait after etcd's
    /// answer.
    void remove(const Entry& entry, std::function<void(Presence)> done) override;

    void expire() override {}
    bool isLoaded() const override { return isLoaded_; }
    bool isCurrent() const override;
    std::string metrics() const override;

    /// Writes the last checks to etcd, and ends all other operations. Handlers that were not called
    /// are destroyed. After at most two seconds only a name lookup can keep the io_context running.
    void stop();

  private:
    using Time = EntryStore::Time;
    using Json = nlohmann::json;
    using PutHandler = std::function<void(std::optional<PutResult>)>;

    static constexpr std::chrono::seconds kLongestWait{1};
    static constexpr std::chrono::milliseconds kRetryPause{200};
    /// So many entries of the largest size fit into EtcdClient::kMaxAnswer.
    static constexpr std::size_t kLongestPage = 40;

    // The copy: EtcdBackend.cpp
    void load();
    void loadAfter(const std::string& key, std::uint64_t revision);
    void requireCluster(const std::string& id);
    bool isReplaced(const EtcdClient::Result& result);
    void replaceCopy(std::uint64_t revision);
    void follow();
    void apply(const Json& result);
    void apply(EtcdEntries::Change& change);
    void advance(std::uint64_t revision);
    void retryLater(std::function<void()> next);

    // Changes: EtcdChanges.cpp
    void putWhenLoaded(const std::string& path, const Json& service, const Owner& owner,
                       PutHandler done);
    void tryToPut(PutResult wanted, std::uint64_t revision, Time until, PutHandler done);
    void onPut(PutResult wanted, Time until, PutHandler done, const EtcdClient::Result& result);
    void tryToRemove(Entry entry, Time until, std::function<void(Presence)> done);
    void requestRemoval(std::vector<Entry> entries, std::uint64_t checks, EtcdClient::Handler done);
    void relistIfPresent(const Entry& entry, std::uint64_t revision);
    void whenReached(std::uint64_t revision, std::function<void()> done);

    // Checks and expiry: EtcdExpiry.cpp
    void onTimer();
    void startTimer(std::chrono::milliseconds pause);
    void writeChecks();
    void onChecksWritten(Time begin, std::uint64_t before, const Json& answer);
    void onCurrent(Time begin);
    void expire(std::vector<std::string> names, Time since);

    // State and stop: EtcdBackend.cpp
    static bool isFromEtcd(const EtcdClient::Result& result);
    void report(const std::string& error);
    void writeLastChecks();
    void close();

    EntryStore& store_;
    const std::function<void()> changed_;
    const EtcdEntries entries_;
    const std::string replica_;
    EtcdClient client_;   // for the requests of clients
    EtcdClient control_;  // for the list, the watch and the checks, which must not wait for client_
    boost::asio::steady_timer timer_;
    boost::asio::steady_timer retry_;

    std::string cluster_;  // id of the cluster whose entries are listed; empty: not known yet
    std::set<std::string> reportedMembers_;  // members of other clusters that were reported

    bool isLoaded_ = false;
    bool isLoading_ = false;
    std::uint64_t loads_ = 0;     // how many were begun
    std::vector<Entry> listed_;   // the pages so far, until the list is complete
    std::uint64_t revision_ = 0;  // of the copy
    int emptyWatches_ = 0;        // in a row
    std::size_t page_ = kLongestPage;
    std::uint64_t checksRevision_ = 0;  // of the last checks that were told

    /// A function that waits until the copy has reached a revision, or until a time.
    struct Waiter {
        Time until;
        std::function<void()> done;
    };
    std::multimap<std::uint64_t, Waiter> waiters_;
    std::unordered_map<std::string, std::vector<std::function<void(Presence, const Entry*)>>>
        lookupHandlers_;

    std::string lease_;  // for the keys of paths whose entries were removed
    std::optional<Time> leaseBegin_{};

    EtcdChecks checks_;
    bool isWriting_ = false;
    bool isExpiring_ = false;

    bool isStopped_ = false;
    bool isReported_ = false;
    std::uint64_t lookups_ = 0;
};

}  // namespace orvx::registry
