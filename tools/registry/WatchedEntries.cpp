// Applies the events of the stream: the list replaces everything, a change replaces one entry. An
// entry that no longer matches the query is removed. Events that do not change the texts, such as
// checks, do not count as a change. Each event also causes due entries to be fetched; the stream
// has an event every few seconds.
// Entered by the thread that reads the stream; there is no lock.

#include "WatchedEntries.h"

#include <algorithm>

#include "Entry.h"

namespace orvx::registry {

using nlohmann::json;

namespace {

constexpr std::chrono::seconds kShortestPause{1};
constexpr std::chrono::seconds kLongestPause{60};
constexpr std::chrono::seconds kLongestIncomplete{30};

}  // namespace

bool WatchedEntries::apply(std::string_view event, const json& data) {
    if (event == "list") {
        beginList();
    } else if (event == "put") {
        put(data);
    } else if (event == "removed") {
        remove(data.at("uuid").get<std::string>());
    } else if (event == "listed") {
        endList();
    }
    fetchDue();
    return isComplete() && std::exchange(isChanged_, false);
}

void WatchedEntries::beginList() {
    for (const auto& [uuid, number] : numbers_) {
        previous_[uuid] = std::move(texts_[{number, uuid}]);
    }
    texts_.clear();
    numbers_.clear();
    waiting_.clear();
    isListed_ = false;
    isComplete_ = false;
}

void WatchedEntries::endList() {
    previous_.clear();
    isChanged_ = true;
    if (!isListed_) {
        isListed_ = true;
        completeBy_ = now_() + kLongestIncomplete;
    }
}

void WatchedEntries::put(const json& entry) {
    const auto uuid = entry.at("uuid").get<std::string>();
    const auto number = entry.at("number").get<std::uint64_t>();
    if (!entry.contains("cut")) {
        return putWhole(entry, uuid, number);
    }
    if (!mayMatch(entry.at("service"))) {
        return remove(uuid);
    }
    if (const auto previous = previous_.find(uuid); previous != previous_.end()) {
        putText(uuid, number, std::move(previous->second));
    }
    waiting_.try_emplace(uuid, Waiting{number, now_()});
}

void WatchedEntries::putWhole(const json& entry, const std::string& uuid, std::uint64_t number) {
    Entry candidate;
    candidate.service = entry.at("service").dump();
    if (!query_.matches(candidate)) {
        return remove(uuid);
    }
    waiting_.erase(uuid);
    putText(uuid, number,
            json{{"path", entry.at("path")}, {"service", entry.at("service")}, {"uuid", uuid}}.dump(
                -1, ' ', true));
}

void WatchedEntries::putText(const std::string& uuid, std::uint64_t number, std::string text) {
    previous_.erase(uuid);
    numbers_[uuid] = number;
    std::string& known = texts_[{number, uuid}];
    isChanged_ = isChanged_ || known != text;
    known = std::move(text);
}

void WatchedEntries::remove(const std::string& uuid) {
    previous_.erase(uuid);
    waiting_.erase(uuid);
    if (const auto found = numbers_.find(uuid); found != numbers_.end()) {
        texts_.erase({found->second, uuid});
        numbers_.erase(found);
        isChanged_ = true;
    }
}

/// Whether the query may match an entry whose service was cut. A cut service has no name if its
/// name is not a text or a number.
bool WatchedEntries::mayMatch(const json& cutService) const {
    const auto name = cutService.find("name");
    return !query_.name || name == cutService.end() || *name == shortened(*query_.name);
}

WatchedEntries::WaitingByUuid::iterator WatchedEntries::nextToFetch() {
    const Time now = now_();
    return now < resumesAt_
               ? waiting_.end()
               : std::find_if(waiting_.begin(), waiting_.end(),
                              [now](const auto& waiting) { return waiting.second.due <= now; });
}

/// The cause of a failure may be the entry or the registry. So a failure delays other entries by
/// the pause that the registry requests, at least a second, but not by the pause of the failed
/// entry.
void WatchedEntries::fetchDue() {
    for (auto next = nextToFetch(); next != waiting_.end(); next = nextToFetch()) {
        const std::string uuid = next->first;
        Waiting& waiting = next->second;
        try {
            if (const auto entry = fetch_(uuid)) {
                putWhole(*entry, uuid, waiting.number);
            } else {
                remove(uuid);
            }
        } catch (const FetchFailure& failure) {
            const Time now = now_();
            resumesAt_ = now + std::clamp(failure.retryAfter(), kShortestPause, kLongestPause);
            waiting.due = now + waiting.pause.next();
        }
    }
}

/// An entry that cannot be fetched delays a new list, because services that are missing in it would
/// lose their requests. The delay is limited.
bool WatchedEntries::isComplete() {
    const auto isMissing = [this](const auto& waiting) {
        return numbers_.count(waiting.first) == 0;
    };
    isComplete_ =
        isComplete_ || (isListed_ && (now_() >= completeBy_ ||
                                      std::none_of(waiting_.begin(), waiting_.end(), isMissing)));
    return isComplete_;
}

std::string WatchedEntries::text() const {
    std::string list = "{\"entries\":[";
    for (const auto& [place, text] : texts_) {
        list += (list.back() == '[' ? "" : ",") + text;
    }
    return list + "]}\n";
}

}  // namespace orvx::registry
