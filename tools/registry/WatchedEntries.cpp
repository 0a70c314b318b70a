// Applies the events of the stream: the list replaces everything, a change replaces one entry. An
// entry that no longer matches the query is removed. Events that leave the texts as they are, such
// as checks, are no change.
// Entered by the thread that reads the stream; there is no lock.

#include "WatchedEntries.h"

#include <utility>

namespace orvx::registry {

using nlohmann::json;

bool WatchedEntries::apply(std::string_view event, const json& data) {
    bool isChanged = false;
    if (event == "list") {
        isComplete_ = false;
        texts_.clear();
        numbers_.clear();
    } else if (event == "put") {
        isChanged = put(data);
    } else if (event == "removed") {
        isChanged = remove(data.at("uuid").get<std::string>());
    } else if (event == "listed") {
        isComplete_ = true;
        isChanged = true;
    }
    return isComplete_ && isChanged;
}

bool WatchedEntries::put(json entry) {
    const auto uuid = entry.at("uuid").get<std::string>();
    const auto number = entry.at("number").get<std::uint64_t>();
    if (entry.contains("cut")) {
        auto whole = fetch_(uuid);
        if (!whole) {
            return remove(uuid);
        }
        entry = *std::move(whole);
    }
    Entry candidate;
    candidate.service = entry.at("service").dump();
    if (!query_.matches(candidate)) {
        return remove(uuid);
    }
    std::string text =
        json{{"path", entry.at("path")}, {"service", entry.at("service")}, {"uuid", uuid}}.dump(
            -1, ' ', true);
    numbers_[uuid] = number;
    std::string& known = texts_[{number, uuid}];
    const bool isChanged = known != text;
    known = std::move(text);
    return isChanged;
}

bool WatchedEntries::remove(const std::string& uuid) {
    const auto found = numbers_.find(uuid);
    if (found == numbers_.end()) {
        return false;
    }
    texts_.erase({found->second, uuid});
    numbers_.erase(found);
    return true;
}

std::string WatchedEntries::text() const {
    std::string list = "{\"entries\":[";
    for (const auto& [place, text] : texts_) {
        list += (list.back() == '[' ? "" : ",") + text;
    }
    return list + "]}\n";
}

}  // namespace orvx::registry
