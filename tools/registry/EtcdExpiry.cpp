// The part of EtcdBackend that writes checks to etcd, together in every interval, and removes the
// entries that no replica has renewed.
// Everything runs on the thread of the io_context. There is no lock.

#include <iostream>
#include <utility>

#include "EtcdBackend.h"

namespace orvx::registry {

using nlohmann::json;

void EtcdBackend::check(const std::string& uuid) {
    store_.check(uuid);
    checks_.add(uuid);
}

void EtcdBackend::onTimer() {
    startTimer(checks_.interval());
    const Time now = store_.now();
    for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
        const auto next = std::next(waiter);
        if (waiter->second.until <= now) {
            waiters_.extract(waiter).mapped().done();
        }
        waiter = next;
    }
    checks_.beginRoundIfDue();
    if (!isLoading_ && checks_.isWatchSilent()) {
        checks_.dropWrites();
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
    std::vector<std::string> uuids = checks_.take();
    const json write = entries_.putChecks(replica_, uuids);
    control_.call("kv/put", write,
                  [this, uuids = std::move(uuids), begin = store_.now(),
                   before = revision_](const EtcdClient::Result& result) {
                      isWriting_ = false;
                      const bool isWritten = isFromEtcd(result);
                      if (!isWritten) {
                          checks_.giveBack(uuids);
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
    checks_.addWrite(revision, begin);
    advance(revision_);
    if (checks_.isFull()) {
        writeChecks();
    }
}

/// Called when the copy has every change that was made before `begin`.
void EtcdBackend::onCurrent(Time begin) {
    if (isReported_) {
        isReported_ = false;
        std::cerr << "orvx-registry: etcd answers again" << std::endl;
    }
    const auto since = checks_.expiryLimit(begin);
    if (since && !isExpiring_) {
        expire(store_.notRenewedSince(*since), *since);
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

}  // namespace orvx::registry
