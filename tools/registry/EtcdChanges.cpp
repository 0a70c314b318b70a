// The part of EtcdBackend that puts, finds and removes entries for clients.
// A change is a transaction at etcd, which is repeated while others change the same path. Its
// result is passed on when the copy has reached its revision.
// Everything runs on the thread of the io_context. There is no lock.

#include <stdexcept>
#include <utility>

#include "EtcdBackend.h"

namespace orvx::registry {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kLongestTry = 5s;  // for a change, while others change the same path
constexpr int kNotFound = 5;      // gRPC's NOT_FOUND
constexpr std::size_t kMaxLookups = 1'000;
// A put with base64 and JSON must fit into etcd's limit of 1.5 MiB.
constexpr std::size_t kLongestService = 1'048'576;

}  // namespace

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
    if (!isLoaded_ || isStopped_ || revision <= revision_) {
        return done();
    }
    waiters_.emplace(revision, Waiter{store_.now() + kLongestWait, std::move(done)});
}

}  // namespace orvx::registry
