// Decides by the begin of writes that came back: until then the copy has every change, so an entry
// that was not renewed in the copy was not checked at any replica.
// Entered only by the thread that runs the io_context. There is no lock.

#include "EtcdChecks.h"

#include <algorithm>
#include <utility>

namespace orvx::registry {

using namespace std::chrono_literals;

namespace {

/// A watch that has not delivered a write of this replica for so long is restarted.
constexpr auto kSilence = 2s;

}  // namespace

std::chrono::milliseconds EtcdChecks::interval() const {
    const auto ttl = store_.options().ttl;
    return ttl.count() == 0 ? 1'000ms : std::clamp<std::chrono::milliseconds>(ttl / 24, 100ms, 1s);
}

/// The maximum age of a current copy. It bounds the time in which checks are answered but cannot be
/// written to etcd.
std::chrono::milliseconds EtcdChecks::longestLag() const {
    const auto ttl = store_.options().ttl;
    return ttl.count() == 0 ? 3'000ms
                            : std::clamp<std::chrono::milliseconds>(ttl / 6, 3 * interval(), 3s);
}

void EtcdChecks::add(const std::string& uuid) {
    if (store_.options().ttl.count() > 0 && checked_.insert(uuid).second) {
        unwritten_.insert(uuid);
    }
}

void EtcdChecks::beginRoundIfDue() {
    const Time now = store_.now();
    if (now - roundBegin_ >= round()) {
        roundBegin_ = now;
        checked_.clear();
    }
}

std::vector<std::string> EtcdChecks::take() {
    std::vector<std::string> uuids;
    while (!unwritten_.empty() && uuids.size() < kMaxChecks) {
        uuids.push_back(std::move(unwritten_.extract(unwritten_.begin()).value()));
    }
    return uuids;
}

bool EtcdChecks::isWatchSilent() const {
    return !writes_.empty() && store_.now() - writes_.begin()->second >= kSilence;
}

void EtcdChecks::restart() {
    writes_.clear();
    currentSince_ = store_.now();
}

std::optional<EtcdChecks::Time> EtcdChecks::reach(std::uint64_t revision) {
    if (writes_.empty() || writes_.begin()->first > revision) {
        return std::nullopt;
    }
    const Time begin = writes_.extract(writes_.begin()).mapped();
    if (!isCurrent()) {
        currentSince_ = store_.now();
    }
    current_ = std::max(current_.value_or(begin), begin);
    return begin;
}

bool EtcdChecks::isCurrent() const {
    return current_ && store_.now() - *current_ < longestLag();
}

std::optional<EtcdChecks::Time> EtcdChecks::expiryLimit(Time begin) const {
    if (store_.options().ttl.count() == 0 || begin - currentSince_ < expiryAge()) {
        return std::nullopt;
    }
    return begin - expiryAge();
}

}  // namespace orvx::registry
