// Keeps the copy, reports its state, and ends. EtcdChanges.cpp makes the changes at etcd,
// EtcdExpiry.cpp writes the checks and removes expired entries.
// The copy is filled with a list of the entries. Then the events of etcd's watch change it in the
// order of their revisions. The entries are listed again when the watch cannot be continued, when
// etcd was restored, and when the copy has an entry that etcd does not have.
// Everything runs on the thread of the io_context. There is no lock.

#include "EtcdBackend.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>

namespace orvx::registry {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kFarewell = 2s;
constexpr int kMaxEmptyWatches = 4;

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
      retry_(context),
      checks_(store) {
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
    checks_.restart();
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
    while (const auto begin = checks_.reach(revision_)) {
        onCurrent(*begin);
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
    retry_.async_wait(
        [this, number = loads_, next = std::move(next)](boost::system::error_code error) {
            // cancel() comes too late for a timer that has expired already.
            if (!error && !isStopped_ && number == loads_) {
                next();
            }
        });
}

// ---- State, metrics and stop

/// Another server than etcd may answer at its address.
bool EtcdBackend::isFromEtcd(const EtcdClient::Result& result) {
    return result.answer && EtcdEntries::revisionOf(*result.answer) != 0;
}

bool EtcdBackend::isCurrent() const {
    return isLoaded_ && checks_.isCurrent();
}

/// Reports the first error only, until etcd answers again. Empty: an answer that is none of etcd.
void EtcdBackend::report(const std::string& error) {
    if (!std::exchange(isReported_, true)) {
        std::cerr << "orvx-registry: etcd: " << (error.empty() ? "no answer of etcd" : error)
                  << std::endl;
    }
}

std::string EtcdBackend::metrics() const {
    std::ostringstream text;
    text << "# HELP orvx_registry_etcd_lag_seconds Age of the last state that is known whole.\n"
            "# TYPE orvx_registry_etcd_lag_seconds gauge\n"
            "orvx_registry_etcd_lag_seconds "
         << std::chrono::duration<double>(checks_.lag()).count()
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
    isLoaded_ && !checks_.isEmpty() ? writeChecks() : close();
}

void EtcdBackend::close() {
    client_.close();
    control_.close();
    retry_.cancel();
}

}  // namespace orvx::registry
