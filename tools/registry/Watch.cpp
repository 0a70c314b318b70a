// Builds the events for a reader of the stream: the puts, checks and removals after the reader's
// revision, in the order of their revisions, with the present state of each entry. All readers get
// heartbeats at the same time, so that equally informed readers are in the same position.
// Runs on the thread that owns the store.
// There is no lock.

#include "Watch.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <tuple>

namespace orvx::registry {

using nlohmann::json;

namespace {

/// A path may contain bytes that are not UTF-8.
std::string dumped(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

template <typename Duration>
std::int64_t milliseconds(Duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

/// The number of the heartbeat interval that contains the time.
EntryStore::Time::rep heartbeatAt(EntryStore::Time time) {
    return time.time_since_epoch() / Watch::kHeartbeat;
}

/// The data of a `put` event. Times are ages in milliseconds, because the reader's clock may
/// differ. The service is copied as text.
std::string entryData(const Entry& entry, const EntryStore& store) {
    const auto now = store.now();
    // Another replica, whose clock may be ahead, may have created the entry.
    const auto age = milliseconds(std::chrono::system_clock::now() - entry.created);
    const bool isCut = isLong(entry);
    json object{{"path", isCut ? shortened(entry.path) : entry.path},
                {"checks", entry.checks},
                {"number", entry.number},
                {"age", std::max<std::int64_t>(0, age)},
                {"renewed", milliseconds(now - entry.renewed)}};
    if (isCut) {
        object["cut"] = entry.service.size();
    }
    if (entry.checked) {
        object["checked"] = milliseconds(now - *entry.checked);
    }
    if (entry.moved) {
        object["moved"] = {{"from", shortened(entry.moved->from)},
                           {"age", milliseconds(now - entry.moved->when)}};
    }
    std::string text = dumped(object);
    text.pop_back();
    text += ",\"service\":";
    text += isCut ? entry.summary : entry.service;
    return text + R"(,"uuid":")" + entry.uuid + R"("})";
}

/// Appends an event; without an id if `id` is empty.
void append(std::string& events, const char* name, const std::string& data, const std::string& id) {
    events += "event: ";
    events += name;
    if (!id.empty()) {
        events += "\nid: " + id;
    }
    events += "\ndata: " + data + "\n\n";
}

void append(std::string& events, const char* name, const json& data, const std::string& id) {
    append(events, name, dumped(data), id);
}

std::string idOf(const EntryStore& store, std::uint64_t revision) {
    return store.instance() + '-' + std::to_string(revision);
}

/// The revision of an id; nothing if the id is not of that store.
std::optional<std::uint64_t> revisionOf(const EntryStore& store, std::string_view id) {
    const std::string& instance = store.instance();
    if (id.size() <= instance.size() || id.substr(0, instance.size()) != instance ||
        id[instance.size()] != '-') {
        return std::nullopt;
    }
    std::uint64_t revision = 0;
    const char* const end = id.data() + id.size();
    const auto read = std::from_chars(id.data() + instance.size() + 1, end, revision);
    return read.ec == std::errc() && read.ptr == end && revision <= store.revision()
               ? std::optional(revision)
               : std::nullopt;
}

}  // namespace

Watch::Watch(const EntryStore& store, std::string_view lastId, bool hasChecks)
    : hasChecks_(hasChecks) {
    const auto revision = revisionOf(store, lastId);
    beginList(store);
    if (revision) {
        puts_ = others_ = *revision;
        beginsList_ = false;
    }
}

void Watch::beginList(const EntryStore& store) {
    puts_ = 0;
    others_ = latest(store);
    listed_ = others_;
    beginsList_ = true;
}

bool Watch::operator==(const Watch& other) const {
    const auto position = [](const Watch& watch) {
        return std::tie(watch.puts_, watch.others_, watch.beginsList_, watch.listed_,
                        watch.heartbeat_, watch.faults_, watch.hasChecks_);
    };
    return position(*this) == position(other);
}

std::string Watch::next(const EntryStore& store, std::size_t faults) {
    std::string events;
    if (heartbeat_ != heartbeatAt(store.now()) || faults != faults_) {
        appendState(store, faults, events);
    }
    if (others_ < store.forgottenRevision()) {
        beginList(store);
    }
    if (beginsList_) {
        append(events, "list", {{"entries", store.entries().size()}}, {});
        beginsList_ = false;
    }
    while (events.size() < kPiece && appendNext(store, events)) {
    }
    return events;
}

Watch::Change Watch::peek(const EntryStore& store) const {
    Change change;
    const auto consider = [&change](Change other) {
        if (change.kind == Kind::Nothing || other.revision < change.revision) {
            change = other;
        }
    };
    if (const Entry* put = store.nextPut(puts_)) {
        consider({Kind::Put, put->putRevision, put, put->uuid});
    }
    if (const Entry* renewed = hasChecks_ ? store.nextRenewal(others_) : nullptr) {
        consider({Kind::Check, renewed->renewalRevision, renewed, renewed->uuid});
    }
    if (const EntryStore::Removal* removed = store.nextRemoval(others_)) {
        consider({Kind::Removal, removed->revision, nullptr, removed->uuid});
    }
    return change;
}

void Watch::advance(std::uint64_t revision) {
    puts_ = revision;
    others_ = std::max(others_, revision);
}

/// Returns false if there is no further event.
bool Watch::appendNext(const EntryStore& store, std::string& events) {
    const Change change = peek(store);
    if (listed_ && (change.kind == Kind::Nothing || change.revision > *listed_)) {
        append(events, "listed", json::object(), idOf(store, *listed_));
        advance(*listed_);
        listed_.reset();
        return true;
    }
    switch (change.kind) {
        case Kind::Nothing:
            return false;
        case Kind::Check:
            appendChecks(store, events);
            return true;
        case Kind::Put:
            append(events, "put", entryData(*change.entry, store), idOf(store, change.revision));
            break;
        case Kind::Removal:
            append(events, "removed", {{"uuid", change.uuid}}, idOf(store, change.revision));
            break;
    }
    advance(change.revision);
    return true;
}

/// Appends one event for all checks up to the next put or removal.
void Watch::appendChecks(const EntryStore& store, std::string& events) {
    constexpr std::size_t kMaxChecks = kLongestEvent / 128;
    std::string checks;
    Change change = peek(store);
    for (std::size_t count = 0; change.kind == Kind::Check && count < kMaxChecks &&
                                (!listed_ || change.revision <= *listed_);
         ++count) {
        checks += checks.empty() ? "[[\"" : ",[\"";
        checks += change.uuid;
        checks += "\"," + std::to_string(change.entry->checks) + ',' +
                  std::to_string(milliseconds(store.now() - change.entry->renewed)) + ']';
        advance(change.revision);
        change = peek(store);
    }
    append(events, "checked", checks + ']', idOf(store, puts_));
}

/// Appends a `state` event, which also serves as a heartbeat.
void Watch::appendState(const EntryStore& store, std::size_t faults, std::string& events) {
    const auto ttl = store.options().ttl.count();
    append(events, "state", {{"faults", faults}, {"ttl", ttl == 0 ? json() : json(ttl)}}, {});
    faults_ = faults;
    heartbeat_ = heartbeatAt(store.now());
}

RecentPieces::Piece RecentPieces::next(Watch& watch, const EntryStore& store, std::size_t faults) {
    const auto now = store.now();
    while (!made_.empty() && now - made_.front().when > kLifetime) {
        made_.pop_front();
    }
    const std::uint64_t latest = watch.latest(store);
    const auto known = std::find_if(made_.rbegin(), made_.rend(), [&](const Made& made) {
        return made.latest == latest && made.faults == faults && made.before == watch;
    });
    if (known != made_.rend()) {
        watch = known->after;
        return known->piece;
    }
    const Watch before = watch;
    auto piece = std::make_shared<const std::string>(watch.next(store, faults));
    if (made_.size() == kMaxPieces) {
        made_.pop_front();
    }
    made_.push_back({before, watch, latest, faults, now, piece});
    return piece;
}

}  // namespace orvx::registry
