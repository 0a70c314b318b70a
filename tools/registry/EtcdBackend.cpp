// The copy is filled with a list of the entries. Then the events of etcd's watch change it in the
// order of their revisions. The entries are listed again when the watch cannot be continued, when
// etcd was restored, and when the copy has an entry that etcd does not have.
// A change is a transaction at etcd. Its result is passed on when the copy has reached its
// revision.
// Checks are counted in the copy, and written to etcd together every interval.
// Everything runs on the thread of the io_context. There is no lock.

#include "EtcdBackend.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace orvx::registry {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kRetryPause = 200ms;
/// A watch that has not delivered a write of this replica for so long is restarted.
constexpr auto kSilence = 2s;
constexpr auto kFarewell = 2s;
constexpr auto kLongestTry = 5s;  // for a change, while others change the same path
constexpr int kNotFound = 5;      // gRPC's NOT_FOUND
constexpr int kMaxEmptyWatches = 4;
constexpr std::size_t kMaxLookups = 1'000;
// A put with base64 and JSON must fit into etcd's limit of 1.5 MiB.
constexpr std::size_t kLongestService = 1'048'576;

/// Another server than etcd may answer at its address.
bool isFromEtcd(const EtcdClient::Result& result) {
    return result.answer && EtcdEntries::revisionOf(*result.answer) != 0;
}

}  // namespace

EtcdBackend::EtcdBackend(boost::asio::io_context& context, const EtcdOptions& options,
                         const std::string& prefix, EntryStore& store,
                         std::function<void()> changed)
    : store_(store),
      changed_(std::move(changed)),
      entries_(prefix),
      replica_(randomUuid()),
      client_(context, options),
      control_(context, options),
      timer_(context),
      retry_(context) {
    load();
    onTimer();
}

// ---- The copy

/// Lists all entries. Replaces a list or a watch that is running.
void EtcdBackend::load() {
    control_.stopWatch();
    retry_.cancel();
    listed_.clear();
    isLoading_ = true;
    emptyWatches_ = 0;
    ++loads_;
    loadAfter({}, 0);
}

/// Reads the next page. `revision`: of the first page; all pages are read at this revision. 0 for
/// the first page.
void EtcdBackend::loadAfter(const std::string& key, std::uint64_t revision) {
    control_.call(
        "kv/range", entries_.list(key, page_, revision),
        [this, key, revision, number = loads_](const EtcdClient::Result& result) {
            if (number != loads_) {
                return;
            }
            if (!isFromEtcd(result)) {
                report(result.error);
                page_ = std::max<std::size_t>(1, page_ / 2);  // the page may have been too long
                const bool isAnew = isReplaced(result) || result.refusal != 0;
                return retryLater(
                    [this, key, revision, isAnew] { isAnew ? load() : loadAfter(key, revision); });
            }
            requireCluster(EtcdEntries::clusterOf(*result.answer));
            page_ = std::min(2 * page_, kLongestPage);
            const std::uint64_t read =
                revision != 0 ? revision : EtcdEntries::revisionOf(*result.answer);
            for (Entry& entry : entries_.entriesIn(*result.answer)) {
                listed_.push_back(std::move(entry));
            }
            const std::string last = EtcdEntries::keyBeforeNextPage(*result.answer);
            if (!last.empty()) {
                return loadAfter(last, read);
            }
            store_.setPlaces(cluster_);
            replaceCopy(read);
        });
}

/// From now on answers of members of other clusters are ignored.
void EtcdBackend::requireCluster(const std::string& id) {
    if (id == cluster_) {
        return;
    }
    cluster_ = id;
    reportedMembers_.clear();
    leaseBegin_.reset();
    for (EtcdClient* const client : {&client_, &control_}) {
        client->requireCluster(id, [this](const std::string& member) {
            if (reportedMembers_.insert(member).second) {
                std::cerr << "orvx-registry: etcd: " << member
                          << " is a member of another cluster, its answers are not taken"
                          << std::endl;
            }
        });
    }
}

/// Whether every member is now of the same other cluster. Then this cluster is required from now
/// on. A member that does not answer may still be of the former cluster.
bool EtcdBackend::isReplaced(const EtcdClient::Result& result) {
    if (result.otherCluster.empty() || result.otherCluster == cluster_) {
        return false;
    }
    requireCluster(result.otherCluster);
    std::cerr << "orvx-registry: etcd: all members are of another cluster now, whose entries are "
                 "taken over"
              << std::endl;
    return true;
}

/// Replaces the content of the copy by the listed entries.
void EtcdBackend::replaceCopy(std::uint64_t revision) {
    std::sort(listed_.begin(), listed_.end(), [](const Entry& one, const Entry& other) {
        return std::tie(one.number, one.uuid) < std::tie(other.number, other.uuid);
    });
    std::unordered_set<std::string_view> names;
    for (const Entry& entry : listed_) {
        names.insert(entry.uuid);
    }
    std::vector<std::string> gone;
    for (const Entry& entry : store_.entries()) {
        if (names.count(entry.uuid) == 0) {
            gone.push_back(entry.uuid);
        }
    }
    for (const std::string& uuid : gone) {
        store_.remove(uuid);
    }
    for (Entry& entry : listed_) {
        const Entry* const known = store_.find(entry.uuid);
        if (known == nullptr || known->etcdRevision != entry.etcdRevision) {
            store_.adopt(std::move(entry));
        }
    }
    listed_ = {};
    isLoading_ = false;
    isLoaded_ = true;
    pendingWrites_.clear();
    currentSince_ = store_.now();
    revision_ = revision;  // may be lower than before, if etcd was restored from a backup
    advance(revision);
    follow();
}

void EtcdBackend::follow() {
    if (isLoading_) {
        return;
    }
    ++emptyWatches_;
    control_.watch(
        entries_.watch(revision_ + 1), [this](const json& result) { apply(result); },
        [this](const std::string& error) {
            report(error);
            // Several watches without an event may ask for a revision that etcd cannot deliver.
            retryLater([this] { emptyWatches_ < kMaxEmptyWatches ? follow() : load(); });
        });
}

void EtcdBackend::apply(const json& result) {
    if (EtcdEntries::isCanceled(result)) {  // etcd's history was compacted
        control_.stopWatch();
        isLoading_ = true;
        return retryLater([this] { load(); });
    }
    std::uint64_t revision = revision_;
    for (EtcdEntries::Change& change : entries_.changesIn(result)) {
        apply(change);
        revision = std::max(revision, change.revision);
    }
    emptyWatches_ = revision > revision_ ? 0 : emptyWatches_;
    advance(revision);
}

void EtcdBackend::apply(EtcdEntries::Change& change) {
    switch (change.kind) {
        case EtcdEntries::Change::Kind::Put:
            return store_.adopt(std::move(change.entry));
        case EtcdEntries::Change::Kind::Removal:
            store_.remove(change.uuid);
            return;
        case EtcdEntries::Change::Kind::Checks:
            checksRevision_ = change.revision;
            if (change.replica != replica_) {
                for (const std::string& uuid : change.uuids) {
                    store_.renew(uuid);
                }
            }
            return;
        case EtcdEntries::Change::Kind::Other:
            return;
    }
}

/// Called when the copy has all changes up to that revision.
void EtcdBackend::advance(std::uint64_t revision) {
    revision_ = std::max(revision_, revision);
    while (!pendingWrites_.empty() && pendingWrites_.begin()->first <= revision_) {
        onCurrent(pendingWrites_.extract(pendingWrites_.begin()).mapped());
    }
    while (!waiters_.empty() && waiters_.begin()->first <= revision_) {
        waiters_.extract(waiters_.begin()).mapped().done();
    }
    changed_();
}

void EtcdBackend::retryLater(std::function<void()> next) {
    if (isStopped_) {
        return;
    }
    retry_.expires_after(kRetryPause);
    retry_.async_wait([this, next = std::move(next)](boost::system::error_code error) {
        if (!error && !isStopped_) {
            next();
        }
    });
}

// ---- Changes

void EtcdBackend::put(const std::string& path, const json& service, const Owner& owner,
                      std::function<void(std::optional<PutResult>)> done) {
    Entry entry;
    entry.path = path;
    entry.service = serialize(service);
    entry.address = addressOf(service);
    entry.owner = owner.name;
    if (entry.service.size() > kLongestService) {
        throw std::invalid_argument("the service is longer than 1 MiB when it is written as JSON");
    }
    if (!isLoaded_) {
        return putWhenLoaded(path, service, owner, std::move(done));
    }
    store_.requireRoom(path, entry.service.size(), owner);
    const Entry* const known = store_.findByPath(path);
    entry.uuid = known != nullptr ? known->uuid : randomUuid();
    entry.created = known != nullptr ? known->created : std::chrono::system_clock::now();
    const std::string movedFrom =
        known != nullptr && hasMoved(known->address, entry.address) ? known->address : "";
    const std::uint64_t revision = known != nullptr ? known->etcdRevision : 0;
    tryToPut({std::move(entry), known == nullptr, movedFrom}, revision, store_.now() + kLongestTry,
             std::move(done));
}

/// Waits up to kLongestWait for the entries, without which the limits cannot be checked.
void EtcdBackend::putWhenLoaded(const std::string& path, const json& service, const Owner& owner,
                                PutHandler done) {
    const auto continuePut = [this, path, service, owner, done = std::move(done)] {
        try {
            isLoaded_ && !isStopped_ ? put(path, service, owner, done) : done(std::nullopt);
        } catch (const StoreFull&) {
            done(std::nullopt);  // a further attempt of the client will be refused
        }
    };
    waiters_.emplace(1, Waiter{store_.now() + kLongestWait, continuePut});
}

/// `revision`: of the last known change of the path's key.
void EtcdBackend::tryToPut(PutResult wanted, std::uint64_t revision, Time until, PutHandler done) {
    const json transaction = entries_.put(wanted.entry, revision);
    client_.call("kv/txn", transaction,
                 [this, wanted = std::move(wanted), until,
                  done = std::move(done)](const EtcdClient::Result& result) mutable {
                     onPut(std::move(wanted), until, std::move(done), result);
                 });
}

void EtcdBackend::onPut(PutResult wanted, Time until, PutHandler done,
                        const EtcdClient::Result& result) {
    if (!isFromEtcd(result)) {
        report(result.error);
        return done(std::nullopt);
    }
    const EtcdEntries::PathState pathState = entries_.pathStateIn(*result.answer);
    // In the second case an earlier attempt without an answer has created the entry.
    if (EtcdEntries::hasSucceeded(*result.answer) ||
        (wanted.created && pathState.uuid == wanted.entry.uuid)) {
        return whenReached(EtcdEntries::revisionOf(*result.answer),
                           [this, wanted = std::move(wanted), done = std::move(done)]() mutable {
                               const Entry* const known = store_.find(wanted.entry.uuid);
                               wanted.entry.checks = known != nullptr ? known->checks : 0;
                               done(std::move(wanted));
                           });
    }
    if (store_.now() > until) {
        return done(std::nullopt);
    }
    // The copy was not current: the path's entry has changed, was replaced by another one, or
    // removed.
    wanted.created = pathState.uuid.empty();
    wanted.movedFrom = pathState.uuid == wanted.entry.uuid ? wanted.movedFrom : "";
    wanted.entry.uuid = wanted.created ? randomUuid() : pathState.uuid;
    wanted.entry.created = wanted.created ? std::chrono::system_clock::now() : pathState.created;
    tryToPut(std::move(wanted), pathState.revision, until, std::move(done));
}

void EtcdBackend::find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) {
    if (const Entry* const entry = store_.find(uuid)) {
        return done(Presence::Present, entry);
    }
    if (!isUuid(uuid)) {
        return done(Presence::Absent, nullptr);
    }
    if (lookupHandlers_.size() >= kMaxLookups && lookupHandlers_.count(uuid) == 0) {
        return done(Presence::Unknown, nullptr);
    }
    // A uuid is never used again, so later requests may share the answer of this lookup.
    auto& waiting = lookupHandlers_[uuid];
    waiting.push_back(std::move(done));
    if (waiting.size() > 1) {
        return;
    }
    ++lookups_;
    client_.call("kv/range", entries_.find(uuid), [this, uuid](const EtcdClient::Result& result) {
        if (!isFromEtcd(result)) {
            report(result.error);
        }
        const auto found =
            result.answer ? entries_.entriesIn(*result.answer) : std::vector<Entry>();
        const bool isAnswered = isFromEtcd(result) && (found.empty() || found.front().uuid == uuid);
        const auto answered = isAnswered ? Presence::Absent : Presence::Unknown;
        const auto asked = lookupHandlers_.extract(uuid);
        for (const auto& handler : asked.mapped()) {
            isAnswered && !found.empty() ? handler(Presence::Present, &found.front())
                                         : handler(answered, nullptr);
        }
    });
}

void EtcdBackend::remove(const Entry& entry, std::function<void(Presence)> done) {
    tryToRemove(entry, store_.now() + kLongestTry, std::move(done));
}

void EtcdBackend::tryToRemove(Entry entry, Time until, std::function<void(Presence)> done) {
    requestRemoval(
        {entry}, 0,
        [this, entry, until, done = std::move(done)](const EtcdClient::Result& result) mutable {
            if (!isFromEtcd(result)) {
                return done(Presence::Unknown);
            }
            const bool isRemoved = EtcdEntries::hasSucceeded(*result.answer);
            const auto left = entries_.revisionsIn(*result.answer);
            if (!isRemoved && !left.empty()) {  // the entry was put meanwhile
                entry.etcdRevision = left.begin()->second;
                return store_.now() > until ? done(Presence::Unknown)
                                            : tryToRemove(entry, until, std::move(done));
            }
            // An earlier attempt without an answer may have removed the entry.
            const bool wasThere = isRemoved || result.isUncertain;
            const std::uint64_t revision = EtcdEntries::revisionOf(*result.answer);
            whenReached(revision, [this, entry, revision, done = std::move(done), wasThere] {
                done(wasThere ? Presence::Present : Presence::Absent);
                relistIfPresent(entry, revision);
            });
        });
}

/// Lists the entries again if the copy has the entry at a revision at which etcd does not have it.
void EtcdBackend::relistIfPresent(const Entry& entry, std::uint64_t revision) {
    if (revision_ >= revision && !isLoading_ && !isStopped_ && store_.find(entry.uuid) != nullptr) {
        report("the copy holds an entry that etcd has not");
        load();
    }
}

/// Sends a request to remove the entries, and before it one for a lease if the present lease is
/// old. `checks`: as in EtcdEntries::remove().
void EtcdBackend::requestRemoval(std::vector<Entry> entries, std::uint64_t checks,
                                 EtcdClient::Handler done) {
    if (!leaseBegin_ || store_.now() - *leaseBegin_ > EtcdEntries::kPathRetention / 6) {
        return client_.call("lease/grant", EtcdEntries::grantLease(),
                            [this, entries = std::move(entries), checks,
                             done = std::move(done)](EtcdClient::Result result) mutable {
                                if (!isFromEtcd(result)) {
                                    report(result.error);
                                    return done(std::move(result));
                                }
                                lease_ = EtcdEntries::leaseIn(*result.answer);
                                leaseBegin_ = store_.now();
                                requestRemoval(std::move(entries), checks, std::move(done));
                            });
    }
    const json transaction = entries_.remove(entries, lease_, checks);
    client_.call("kv/txn", transaction, [this, done = std::move(done)](EtcdClient::Result result) {
        if (!isFromEtcd(result)) {
            report(result.error);
        }
        if (result.refusal == kNotFound) {  // etcd has lost the lease
            leaseBegin_.reset();
        }
        done(std::move(result));
    });
}

void EtcdBackend::whenReached(std::uint64_t revision, std::function<void()> done) {
    if (!isLoaded_ || revision <= revision_) {
        return done();
    }
    waiters_.emplace(revision, Waiter{store_.now() + kLongestWait, std::move(done)});
}

// ---- Checks and expiry

void EtcdBackend::check(const std::string& uuid) {
    store_.check(uuid);
    if (store_.options().ttl.count() > 0 && checked_.insert(uuid).second) {
        unwrittenChecks_.insert(uuid);
    }
}

std::chrono::milliseconds EtcdBackend::interval() const {
    const auto ttl = store_.options().ttl;
    return ttl.count() == 0 ? 1'000ms : std::clamp<std::chrono::milliseconds>(ttl / 24, 100ms, 1s);
}

/// The maximum age of a current copy. It bounds the time in which checks are answered but cannot be
/// written to etcd.
std::chrono::milliseconds EtcdBackend::longestLag() const {
    const auto ttl = store_.options().ttl;
    return ttl.count() == 0 ? 3'000ms
                            : std::clamp<std::chrono::milliseconds>(ttl / 6, 3 * interval(), 3s);
}

void EtcdBackend::onTimer() {
    startTimer(interval());
    const Time now = store_.now();
    for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
        const auto next = std::next(waiter);
        if (waiter->second.until <= now) {
            waiters_.extract(waiter).mapped().done();
        }
        waiter = next;
    }
    if (now - roundBegin_ >= round()) {
        roundBegin_ = now;
        checked_.clear();
    }
    if (!isLoading_ && !pendingWrites_.empty() &&
        now - pendingWrites_.begin()->second >= kSilence) {
        pendingWrites_.clear();
        report("the watch is silent");
        follow();
    }
    if (isLoaded_ && !isWriting_) {
        writeChecks();
    }
}

void EtcdBackend::startTimer(std::chrono::milliseconds pause) {
    timer_.expires_after(pause);
    timer_.async_wait([this](boost::system::error_code error) {
        if (!error && !isStopped_) {
            onTimer();
        }
    });
}

void EtcdBackend::writeChecks() {
    isWriting_ = true;
    std::vector<std::string> uuids;
    while (!unwrittenChecks_.empty() && uuids.size() < kMaxChecks) {
        uuids.push_back(std::move(unwrittenChecks_.extract(unwrittenChecks_.begin()).value()));
    }
    const json write = entries_.putChecks(replica_, uuids);
    control_.call("kv/put", write,
                  [this, uuids = std::move(uuids), begin = store_.now(),
                   before = revision_](const EtcdClient::Result& result) {
                      isWriting_ = false;
                      const bool isWritten = isFromEtcd(result);
                      if (!isWritten) {
                          unwrittenChecks_.insert(uuids.begin(), uuids.end());
                          report(result.error);
                      }
                      if (isStopped_) {
                          return isWritten ? writeLastChecks() : close();
                      }
                      if (isReplaced(result)) {
                          return load();
                      }
                      isWritten ? onChecksWritten(begin, before, *result.answer)
                                : startTimer(kRetryPause / 2);
                  });
}

/// `before`: the copy's revision when the write began.
void EtcdBackend::onChecksWritten(Time begin, std::uint64_t before, const json& answer) {
    const std::uint64_t revision = EtcdEntries::revisionOf(answer);
    if (isLoading_) {
        return;
    }
    if (revision <= before) {
        return load();  // etcd was restored from a backup and has another history
    }
    pendingWrites_.emplace(revision, begin);
    advance(revision_);
    if (unwrittenChecks_.size() >= kMaxChecks) {
        writeChecks();
    }
}

/// Called when the copy has every change that was made before `begin`.
void EtcdBackend::onCurrent(Time begin) {
    if (!isCurrent()) {
        currentSince_ = store_.now();
    }
    if (isReported_) {
        isReported_ = false;
        std::cerr << "orvx-registry: etcd answers again" << std::endl;
    }
    current_ = std::max(current_.value_or(begin), begin);
    if (store_.options().ttl.count() > 0 && !isExpiring_ && begin - currentSince_ >= expiryAge()) {
        expire(store_.notRenewedSince(begin - expiryAge()), begin - expiryAge());
    }
}

/// Removes the entries of `names` that have not been renewed since. Sends one transaction at a
/// time, and stops when a replica has written further checks.
void EtcdBackend::expire(std::vector<std::string> names, Time since) {
    std::vector<Entry> entries;
    while (!names.empty() && entries.size() < EtcdEntries::kMaxRemovals) {
        const Entry* const entry = store_.find(names.back());
        if (entry != nullptr && entry->renewed <= since) {
            entries.push_back(*entry);
        }
        names.pop_back();
    }
    isExpiring_ = !entries.empty();
    if (!isExpiring_) {
        return;
    }
    requestRemoval(
        entries, checksRevision_,
        [this, entries, names = std::move(names), since](const EtcdClient::Result& result) mutable {
            isExpiring_ = false;
            if (!isFromEtcd(result)) {
                return;
            }
            const bool isRemoved = EtcdEntries::hasSucceeded(*result.answer);
            const auto left = entries_.revisionsIn(*result.answer);
            // An earlier attempt without an answer may have removed the entries. If another replica
            // has removed them meanwhile, both record it.
            if (isRemoved || result.isUncertain) {
                for (const Entry& entry : entries) {
                    if (left.count(entry.uuid) == 0) {
                        store_.recordExpiration(entry);
                    }
                }
            }
            if (isRemoved) {
                return expire(std::move(names), since);
            }
            const std::uint64_t revision = EtcdEntries::revisionOf(*result.answer);
            whenReached(revision, [this, entries, left, revision] {
                for (const Entry& entry : entries) {
                    if (left.count(entry.uuid) == 0) {
                        relistIfPresent(entry, revision);
                    }
                }
            });
        });
}

// ---- State, metrics and stop

bool EtcdBackend::isCurrent() const {
    return isLoaded_ && current_ && store_.now() - *current_ < longestLag();
}

/// Reports the first error only, until etcd answers again.
void EtcdBackend::report(const std::string& error) {
    if (!std::exchange(isReported_, true)) {
        std::cerr << "orvx-registry: etcd: " << error << std::endl;
    }
}

std::string EtcdBackend::metrics() const {
    const auto lag = store_.now() - current_.value_or(begin_);
    std::ostringstream text;
    text << "# HELP orvx_registry_etcd_lag_seconds Age of the last state that is known whole.\n"
            "# TYPE orvx_registry_etcd_lag_seconds gauge\n"
            "orvx_registry_etcd_lag_seconds "
         << std::chrono::duration<double>(lag).count()
         << "\n# HELP orvx_registry_etcd_lookups_total Entries that were looked for at etcd.\n"
            "# TYPE orvx_registry_etcd_lookups_total counter\n"
            "orvx_registry_etcd_lookups_total "
         << lookups_ << '\n';
    return text.str();
}

void EtcdBackend::stop() {
    isStopped_ = true;
    timer_.cancel();
    control_.stopWatch();
    for (auto& [revision, waiter] : std::exchange(waiters_, {})) {
        waiter.done();  // the change was carried out, and the audit log should contain it
    }
    retry_.expires_after(kFarewell);
    retry_.async_wait([this](boost::system::error_code) { close(); });
    if (!isWriting_) {
        writeLastChecks();
    }
}

void EtcdBackend::writeLastChecks() {
    isLoaded_ && !unwrittenChecks_.empty() ? writeChecks() : close();
}

void EtcdBackend::close() {
    client_.close();
    control_.close();
    retry_.cancel();
}

}  // namespace orvx::registry
