// The copy: listed once, then changed by the events of etcd's watch in the order of their
// revisions. The entries are listed again when the watch cannot be continued.
// A change: a transaction at etcd, whose answer is passed on when the copy has reached its
// revision.
// Checks: counted in the copy, and written to etcd together every interval.
// Everything runs on the thread of the io_context. There is no lock.

#include "EtcdBackend.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <utility>

namespace orvx::registry {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kRetryPause = 200ms;
constexpr auto kSilence = 2s;  // of a watch that should have brought a write
constexpr auto kFarewell = 1s;
// A page of the largest entries is shorter than the longest answer.
constexpr std::size_t kPage = 40;

}  // namespace

EtcdBackend::EtcdBackend(boost::asio::io_context& context, const EtcdOptions& options,
                         const std::string& prefix, EntryStore& store,
                         std::function<void()> changed)
    : store_(store),
      changed_(std::move(changed)),
      entries_(prefix),
      replica_(randomUuid()),
      client_(context, options),
      beat_(context),
      retry_(context) {
    load();
    beat();
}

// ---- The copy

/// In place of a list that is under way.
void EtcdBackend::load() {
    client_.stopWatch();
    listed_.clear();
    isLoading_ = true;
    ++loads_;
    loadAfter({}, 0);
}

/// `revision`: that of the first page, at which all others are read; 0: this is the first one.
void EtcdBackend::loadAfter(const std::string& key, std::uint64_t revision) {
    client_.call("kv/range", entries_.list(key, kPage, revision),
                 [this, revision, number = loads_](const EtcdClient::Result& result) {
                     if (number != loads_) {
                         return;
                     }
                     if (!result.answer) {
                         report(result.error);
                         return later([this] { load(); });
                     }
                     const std::uint64_t read =
                         revision != 0 ? revision : EtcdEntries::revisionOf(*result.answer);
                     for (Entry& entry : entries_.entriesIn(*result.answer)) {
                         listed_.push_back(std::move(entry));
                     }
                     const std::string last = EtcdEntries::keyBeforeNextPage(*result.answer);
                     if (!last.empty()) {
                         return loadAfter(last, read);
                     }
                     store_.setPlaces(EtcdEntries::clusterOf(*result.answer));
                     takeOver(read);
                 });
}

/// The copy becomes what was listed.
void EtcdBackend::takeOver(std::uint64_t revision) {
    std::sort(listed_.begin(), listed_.end(),
              [](const Entry& one, const Entry& other) { return one.number < other.number; });
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
    told_.clear();
    revision_ = revision;  // an earlier one, if etcd was restored from a backup
    reach(revision);
    follow();
}

void EtcdBackend::follow() {
    hasFollowed_ = false;
    client_.watch(
        entries_.watch(revision_ + 1), [this](const json& result) { apply(result); },
        [this](const std::string& error) {
            report(error);
            // A watch that brings nothing may be asked for too much, or for what is gone.
            later([this] { hasFollowed_ ? follow() : load(); });
        });
}

void EtcdBackend::apply(const json& result) {
    if (EtcdEntries::isCanceled(result)) {  // its history was compacted
        return load();
    }
    std::uint64_t revision = revision_;
    for (EtcdEntries::Change& change : entries_.changesIn(result)) {
        apply(change);
        revision = std::max(revision, change.revision);
    }
    hasFollowed_ = hasFollowed_ || revision > revision_;
    reach(revision);
}

void EtcdBackend::apply(EtcdEntries::Change& change) {
    switch (change.kind) {
        case EtcdEntries::Change::Kind::Put:
            return store_.adopt(std::move(change.entry));
        case EtcdEntries::Change::Kind::Removal:
            store_.remove(change.uuid);
            return;
        case EtcdEntries::Change::Kind::Checks:
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

/// The copy has all changes up to that revision.
void EtcdBackend::reach(std::uint64_t revision) {
    revision_ = std::max(revision_, revision);
    while (!told_.empty() && told_.begin()->first <= revision_) {
        onCurrent(told_.extract(told_.begin()).mapped());
    }
    while (!waiters_.empty() && waiters_.begin()->first <= revision_) {
        waiters_.extract(waiters_.begin()).mapped().done();
    }
    changed_();
}

void EtcdBackend::later(std::function<void()> next) {
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
    store_.requireRoom(path, entry.service.size(), owner);
    const Entry* const known = store_.findByPath(path);
    entry.uuid = known != nullptr ? known->uuid : randomUuid();
    entry.created = known != nullptr ? known->created : std::chrono::system_clock::now();
    const std::string movedFrom =
        known != nullptr && hasMoved(known->address, entry.address) ? known->address : "";
    const std::uint64_t revision = known != nullptr ? known->etcdRevision : 0;
    tryToPut({std::move(entry), known == nullptr, movedFrom}, revision, 1, std::move(done));
}

/// `revision`: of the last change of the path's key, as far as this replica knows.
void EtcdBackend::tryToPut(PutResult wanted, std::uint64_t revision, int tries, PutHandler done) {
    const json transaction = entries_.put(wanted.entry, revision);
    client_.call("kv/txn", transaction,
                 [this, wanted = std::move(wanted), tries,
                  done = std::move(done)](const EtcdClient::Result& result) mutable {
                     onPut(std::move(wanted), tries, std::move(done), result);
                 });
}

void EtcdBackend::onPut(PutResult wanted, int tries, PutHandler done,
                        const EtcdClient::Result& result) {
    if (!result.answer) {
        report(result.error);
        return done(std::nullopt);
    }
    const EtcdEntries::Place place = entries_.placeIn(*result.answer);
    // The second case: an attempt that brought no answer has created the entry.
    if (EtcdEntries::hasSucceeded(*result.answer) ||
        (wanted.created && place.uuid == wanted.entry.uuid)) {
        return whenReached(EtcdEntries::revisionOf(*result.answer),
                           [this, wanted = std::move(wanted), done = std::move(done)]() mutable {
                               const Entry* const known = store_.find(wanted.entry.uuid);
                               wanted.entry.checks = known != nullptr ? known->checks : 0;
                               done(std::move(wanted));
                           });
    }
    if (tries == kMostTries) {
        return done(std::nullopt);
    }
    // The copy did not know yet that the entry of this path has changed, is another one, or none.
    wanted.created = place.uuid.empty();
    wanted.entry.uuid = wanted.created ? randomUuid() : place.uuid;
    wanted.movedFrom = wanted.created ? "" : wanted.movedFrom;
    wanted.entry.created = wanted.created ? std::chrono::system_clock::now() : place.created;
    tryToPut(std::move(wanted), place.revision, tries + 1, std::move(done));
}

void EtcdBackend::find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) {
    if (const Entry* const entry = store_.find(uuid)) {
        return done(Presence::Present, entry);
    }
    if (!isUuid(uuid)) {
        return done(Presence::Absent, nullptr);
    }
    // A name is never given again, so who asks later may share the answer.
    auto& waiting = misses_[uuid];
    waiting.push_back(std::move(done));
    if (waiting.size() > 1) {
        return;
    }
    ++lookups_;
    client_.call("kv/range", entries_.find(uuid), [this, uuid](const EtcdClient::Result& result) {
        const auto found =
            result.answer ? entries_.entriesIn(*result.answer) : std::vector<Entry>();
        if (!result.answer) {
            report(result.error);
        }
        const auto answered = result.answer ? Presence::Absent : Presence::Unknown;
        const auto asked = misses_.extract(uuid);
        for (const auto& handler : asked.mapped()) {
            found.empty() ? handler(answered, nullptr) : handler(Presence::Present, &found.front());
        }
    });
}

void EtcdBackend::remove(const Entry& entry, std::function<void(Presence)> done) {
    tryToRemove(entry, 1, std::move(done));
}

void EtcdBackend::tryToRemove(const Entry& entry, int tries, std::function<void(Presence)> done) {
    callToRemove({entry}, [this, tries,
                           done = std::move(done)](const EtcdClient::Result& result) mutable {
        if (!result.answer) {
            return done(Presence::Unknown);
        }
        const auto left = entries_.entriesIn(*result.answer);
        if (!EtcdEntries::hasSucceeded(*result.answer) && !left.empty()) {  // was put meanwhile
            return tries == kMostTries ? done(Presence::Unknown)
                                       : tryToRemove(left.front(), tries + 1, std::move(done));
        }
        // An attempt that brought no answer may have removed the entry.
        const bool wasThere = EtcdEntries::hasSucceeded(*result.answer) || result.isUncertain;
        whenReached(EtcdEntries::revisionOf(*result.answer), [done = std::move(done), wasThere] {
            done(wasThere ? Presence::Present : Presence::Absent);
        });
    });
}

/// Calls etcd to remove the entries, with a lease that lives long enough.
void EtcdBackend::callToRemove(std::vector<Entry> entries, EtcdClient::Handler done) {
    if (!leaseBegin_ || store_.now() - *leaseBegin_ > EtcdEntries::kMemory / 6) {
        return client_.call("lease/grant", EtcdEntries::grantLease(),
                            [this, entries = std::move(entries),
                             done = std::move(done)](EtcdClient::Result result) mutable {
                                if (!result.answer) {
                                    report(result.error);
                                    return done(std::move(result));
                                }
                                lease_ = EtcdEntries::leaseIn(*result.answer);
                                leaseBegin_ = store_.now();
                                callToRemove(std::move(entries), std::move(done));
                            });
    }
    client_.call("kv/txn", entries_.remove(entries, lease_),
                 [this, done = std::move(done)](EtcdClient::Result result) {
                     if (!result.answer) {
                         leaseBegin_.reset();  // etcd may have lost the lease
                         report(result.error);
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
        untold_.insert(uuid);
    }
}

std::chrono::milliseconds EtcdBackend::interval() const {
    const auto ttl = store_.options().ttl;
    return ttl.count() == 0 ? 1'000ms : std::clamp<std::chrono::milliseconds>(ttl / 24, 100ms, 1s);
}

/// A check that etcd does not get to know must not be followed by too many others.
std::chrono::milliseconds EtcdBackend::longestLag() const {
    const auto ttl = store_.options().ttl;
    return ttl.count() == 0 ? 3'000ms
                            : std::clamp<std::chrono::milliseconds>(ttl / 6, 3 * interval(), 3s);
}

void EtcdBackend::beat() {
    beat_.expires_after(interval());
    beat_.async_wait([this](boost::system::error_code error) {
        if (!error && !isStopped_) {
            beat();
        }
    });
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
    if (!isLoading_ && !told_.empty() && now - told_.begin()->second >= kSilence) {
        told_.clear();
        report("the watch is silent");
        follow();
    }
    if (isLoaded_ && !isTelling_) {
        tellChecks();
    }
}

void EtcdBackend::tellChecks() {
    isTelling_ = true;
    std::vector<std::string> uuids;
    while (!untold_.empty() && uuids.size() < kMaxChecks) {
        uuids.push_back(std::move(untold_.extract(untold_.begin()).value()));
    }
    const json write = entries_.tellChecks(replica_, uuids);
    client_.call("kv/put", write,
                 [this, uuids = std::move(uuids), begin = store_.now(),
                  before = revision_](const EtcdClient::Result& result) {
                     isTelling_ = false;
                     if (!result.answer) {
                         untold_.insert(uuids.begin(), uuids.end());
                         report(result.error);
                     } else if (!isStopped_) {
                         onTold(begin, before, *result.answer);
                     }
                     if (isStopped_) {
                         result.answer ? tellLastChecks() : close();
                     }
                 });
}

/// `before`: what the copy had reached when the write began.
void EtcdBackend::onTold(Time begin, std::uint64_t before, const json& answer) {
    const std::uint64_t revision = EtcdEntries::revisionOf(answer);
    if (isLoading_) {
        return;
    }
    if (revision <= before || EtcdEntries::clusterOf(answer) != store_.places()) {
        return load();  // etcd was restored from a backup: its history is another one
    }
    told_.emplace(revision, begin);
    reach(revision_);
    if (untold_.size() >= kMaxChecks) {
        tellChecks();
    }
}

/// The copy has every change that took place before `begin`.
void EtcdBackend::onCurrent(Time begin) {
    if (!isCurrent()) {
        currentSince_ = store_.now();
    }
    if (isReported_) {
        isReported_ = false;
        std::cerr << "orvx-registry: etcd answers again" << std::endl;
    }
    current_ = std::max(current_.value_or(begin), begin);
    if (store_.options().ttl.count() > 0 && !isExpiring_ && begin - currentSince_ >= limit()) {
        expire(store_.notRenewedSince(begin - limit()), begin - limit());
    }
}

/// Takes out those of `names` that still were not renewed since, some after the other.
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
    if (isExpiring_) {
        expire(std::move(entries), [this, names = std::move(names), since]() mutable {
            expire(std::move(names), since);
        });
    }
}

/// All of them, or each one by itself: one that changed meanwhile stays.
void EtcdBackend::expire(std::vector<Entry> entries, std::function<void()> done) {
    callToRemove(
        entries, [this, entries, done = std::move(done)](const EtcdClient::Result& result) mutable {
            if (!result.answer) {
                isExpiring_ = false;
                return;
            }
            if (EtcdEntries::hasSucceeded(*result.answer)) {
                for (const Entry& entry : entries) {
                    store_.recordExpiration(entry);
                }
                return done();
            }
            if (entries.size() == 1) {
                return done();
            }
            const auto middle = entries.begin() + static_cast<std::ptrdiff_t>(entries.size() / 2);
            std::vector<Entry> rest(middle, entries.end());
            entries.erase(middle, entries.end());
            expire(std::move(entries),
                   [this, rest = std::move(rest), done = std::move(done)]() mutable {
                       expire(std::move(rest), std::move(done));
                   });
        });
}

// ---- The rest

bool EtcdBackend::isCurrent() const {
    return isLoaded_ && current_ && store_.now() - *current_ < longestLag();
}

/// Once until etcd answers again.
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
    beat_.cancel();
    client_.stopWatch();
    waiters_.clear();
    retry_.expires_after(kFarewell);
    retry_.async_wait([this](boost::system::error_code) { client_.close(); });
    if (!isTelling_) {
        tellLastChecks();
    }
}

void EtcdBackend::tellLastChecks() {
    isLoaded_ && !untold_.empty() ? tellChecks() : close();
}

void EtcdBackend::close() {
    client_.close();
    retry_.cancel();
}

}  // namespace orvx::registry
