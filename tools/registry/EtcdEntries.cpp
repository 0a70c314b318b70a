// Three kinds of keys below the prefix:
//   entries/<uuid>  the path, the address, the owner and the time of creation as JSON on one line;
//                   the service follows on the next one, as the text that it is
//   paths/<path>    "<uuid> <time of creation in milliseconds>"; after the entry "-", for 50 to 60
//                   minutes
//   checks          the names of entries that were checked at one replica
// Every transaction changes an entry and its path together. The checks and the entries are next to
// one another in the order of the keys, so that one watch follows both, and no paths.
// Thread-safe: the only state is the constant prefix.

#include "EtcdEntries.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "Base64.h"
#include "Json.h"

namespace orvx::registry {

using nlohmann::json;

namespace {

constexpr std::string_view kChecks = "checks";
constexpr std::string_view kEntries = "entries/";
constexpr std::string_view kPaths = "paths/";
constexpr std::string_view kNoEntry = "-";
constexpr std::uint64_t kLastRevision = std::numeric_limits<std::int64_t>::max();
constexpr std::string_view kEndOfEntries = "entries0";  // '0' is the character after '/'

std::int64_t milliseconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

std::chrono::system_clock::time_point timeAt(std::int64_t milliseconds) {
    constexpr std::int64_t kEnd = 4'102'444'800'000;  // the year 2100; much later times overflow
    return std::chrono::system_clock::time_point(
        std::chrono::milliseconds(std::clamp<std::int64_t>(milliseconds, 0, kEnd)));
}

/// A member of an object, or null.
const json& at(const json& object, const char* name) {
    static const json kNull;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return found == object.end() ? kNull : *found;
}

/// The gateway writes 64-bit numbers as texts, and omits zeros.
template <typename Number>
Number numberIn(std::string_view text) {
    Number number = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    return read.ec == std::errc() && read.ptr == text.data() + text.size() ? number : 0;
}

std::string_view textIn(const json& object, const char* name) {
    const json& value = at(object, name);
    return value.is_string() ? std::string_view(value.get_ref<const std::string&>())
                             : std::string_view();
}

std::string decodedIn(const json& object, const char* name) {
    return decode64(textIn(object, name)).value_or(std::string());
}

std::string nameOf(const Entry& entry) {
    return entry.uuid + ' ' + std::to_string(milliseconds(entry.created));
}

std::string valueOf(const Entry& entry) {
    // A path or an address may contain bytes that are not UTF-8, which JSON cannot contain.
    return json{{"path", encode64(entry.path)},
                {"address", encode64(entry.address)},
                {"owner", entry.owner},
                {"created", milliseconds(entry.created)}}
               .dump() +
           '\n' + entry.service;
}

json operation(const char* kind, json request) {
    json made = json::object();
    made[kind] = std::move(request);
    return made;
}

/// A transaction that carries out `operations` if all conditions hold, and `otherwise` if not.
json transaction(json conditions, json operations, json otherwise) {
    json made = json::object();
    made["compare"] = std::move(conditions);
    made["success"] = std::move(operations);
    made["failure"] = std::move(otherwise);
    return made;
}

json unchangedSince(const json& key, std::uint64_t revision) {
    return {{"key", key},
            {"target", "MOD"},
            {"result", "EQUAL"},
            {"mod_revision", std::to_string(revision)}};
}

/// The keys and values of all ranges of a transaction.
json foundIn(const json& transaction) {
    json pairs = json::array();
    for (const json& response : at(transaction, "responses")) {
        for (const json& pair : at(at(response, "response_range"), "kvs")) {
            pairs.push_back(pair);
        }
    }
    return pairs;
}

}  // namespace

bool isUuid(std::string_view text) {
    constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    return std::equal(
        text.begin(), text.end(), kForm.begin(), kForm.end(), [](char letter, char form) {
            return form == '-'
                       ? letter == '-'
                       : (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'f');
        });
}

json EtcdEntries::key(std::string_view kind, std::string_view name) const {
    return encode64(prefix_ + std::string(kind) + std::string(name));
}

json EtcdEntries::put(const Entry& entry, std::uint64_t revision) const {
    const json path = key(kPaths, entry.path);
    return transaction(
        json::array({unchangedSince(path, revision)}),
        json::array({operation("request_put", {{"key", path}, {"value", encode64(nameOf(entry))}}),
                     operation("request_put", {{"key", key(kEntries, entry.uuid)},
                                               {"value", encode64(valueOf(entry))}})}),
        json::array({operation("request_range", {{"key", path}})}));
}

json EtcdEntries::remove(const std::vector<Entry>& entries, const std::string& lease,
                         std::uint64_t checks) const {
    json conditions = json::array();
    if (checks != 0) {
        conditions.push_back(unchangedSince(key(kChecks, ""), checks));
    }
    json removals = json::array();
    json ranges = json::array();
    for (const Entry& entry : entries) {
        const json name = key(kEntries, entry.uuid);
        conditions.push_back(unchangedSince(name, entry.etcdRevision));
        removals.push_back(operation("request_delete_range", {{"key", name}}));
        removals.push_back(operation(
            "request_put",
            {{"key", key(kPaths, entry.path)}, {"value", encode64(kNoEntry)}, {"lease", lease}}));
        ranges.push_back(operation("request_range", {{"key", name}, {"keys_only", true}}));
    }
    return transaction(std::move(conditions), std::move(removals), std::move(ranges));
}

json EtcdEntries::grantLease() {
    return {{"TTL", std::to_string(kPathRetention.count())}};
}

json EtcdEntries::find(const std::string& uuid) const {
    return {{"key", key(kEntries, uuid)}};
}

json EtcdEntries::list(const std::string& afterKey, std::size_t limit,
                       std::uint64_t revision) const {
    // The smallest key that is greater than a key is that key followed by a NUL.
    return {{"key", afterKey.empty() ? key(kEntries, "") : json(encode64(afterKey + '\0'))},
            {"range_end", key(kEndOfEntries, "")},
            {"limit", std::to_string(limit)},
            {"revision", std::to_string(revision)}};
}

json EtcdEntries::putChecks(const std::string& replica,
                            const std::vector<std::string>& uuids) const {
    return {{"key", key(kChecks, "")},
            {"value", encode64(json{{"from", replica}, {"uuids", uuids}}.dump())}};
}

json EtcdEntries::watch(std::uint64_t fromRevision) const {
    return {{"key", key(kChecks, "")},
            {"range_end", key(kEndOfEntries, "")},
            {"start_revision", std::to_string(fromRevision)}};
}

std::uint64_t EtcdEntries::revisionOf(const json& answer) {
    return numberIn<std::uint64_t>(textIn(at(answer, "header"), "revision"));
}

std::string EtcdEntries::clusterOf(const json& answer) {
    return std::string(textIn(at(answer, "header"), "cluster_id"));
}

std::string EtcdEntries::keyBeforeNextPage(const json& range) {
    const json& pairs = at(range, "kvs");
    return at(range, "more") == true && !pairs.empty() ? decodedIn(pairs.back(), "key") : "";
}

bool EtcdEntries::isCanceled(const json& result) {
    return at(result, "canceled") == true;
}

bool EtcdEntries::hasSucceeded(const json& transaction) {
    return at(transaction, "succeeded") == true;
}

std::string EtcdEntries::leaseIn(const json& answer) {
    return std::string(textIn(answer, "ID"));
}

EtcdEntries::PathState EtcdEntries::pathStateIn(const json& transaction) const {
    PathState state;
    for (const json& pair : foundIn(transaction)) {
        const std::string value = decodedIn(pair, "value");
        const auto space = value.find(' ');
        state.revision = numberIn<std::uint64_t>(textIn(pair, "mod_revision"));
        if (space != std::string::npos && isUuid(value.substr(0, space))) {
            state.uuid = value.substr(0, space);
            state.created = timeAt(numberIn<std::int64_t>(value.substr(space + 1)));
        }
    }
    return state;
}

std::map<std::string, std::uint64_t> EtcdEntries::revisionsIn(const json& transaction) const {
    std::map<std::string, std::uint64_t> revisions;
    const std::size_t begin = prefix_.size() + kEntries.size();
    for (const json& pair : foundIn(transaction)) {
        const std::string name = decodedIn(pair, "key");
        if (name.size() > begin) {
            revisions[name.substr(begin)] = numberIn<std::uint64_t>(textIn(pair, "mod_revision"));
        }
    }
    return revisions;
}

std::vector<Entry> EtcdEntries::entriesIn(const json& range) const {
    std::vector<Entry> entries;
    for (const json& pair : at(range, "kvs")) {
        if (auto entry = entryIn(pair)) {
            entries.push_back(std::move(*entry));
        }
    }
    return entries;
}

/// Nothing if it is not a valid entry, since other programs may write below the prefix.
std::optional<Entry> EtcdEntries::entryIn(const json& pair) const {
    const std::string name = decodedIn(pair, "key");
    const std::string begin = prefix_ + std::string(kEntries);
    const std::string value = decodedIn(pair, "value");
    const auto line = value.find('\n');
    if (name.compare(0, begin.size(), begin) != 0 || !isUuid(name.substr(begin.size())) ||
        line == std::string::npos) {
        return std::nullopt;
    }
    const json head = parseJson(std::string_view(value).substr(0, line));
    Entry entry;
    entry.uuid = name.substr(begin.size());
    entry.number = numberIn<std::uint64_t>(textIn(pair, "create_revision"));
    entry.etcdRevision = numberIn<std::uint64_t>(textIn(pair, "mod_revision"));
    entry.path = decodedIn(head, "path");
    entry.address = decodedIn(head, "address");
    entry.owner = textIn(head, "owner");
    entry.service = value.substr(line + 1);
    entry.created = at(head, "created").is_number_integer()
                        ? timeAt(at(head, "created").get<std::int64_t>())
                        : timeAt(0);
    // The text is copied into lists and events, so it must not contain line breaks, which would end
    // an event, nor a byte order mark, which the parser would skip. This program writes neither.
    const bool isComplete = !entry.path.empty() && entry.number != 0 &&
                            entry.number <= kLastRevision && !entry.service.empty() &&
                            entry.service.front() == '{' &&
                            entry.service.find_first_of("\r\n") == std::string::npos &&
                            parseJson(entry.service).is_object();
    return isComplete ? std::optional(std::move(entry)) : std::nullopt;
}

std::vector<EtcdEntries::Change> EtcdEntries::changesIn(const json& result) const {
    std::vector<Change> changes;
    for (const json& event : at(result, "events")) {
        changes.push_back(changeIn(event));
    }
    return changes;
}

EtcdEntries::Change EtcdEntries::changeIn(const json& event) const {
    const json& pair = at(event, "kv");
    Change change;
    change.revision = numberIn<std::uint64_t>(textIn(pair, "mod_revision"));
    const std::string name = decodedIn(pair, "key");
    const std::string entries = prefix_ + std::string(kEntries);
    const bool isPut = textIn(event, "type") != "DELETE";
    if (isPut && name == prefix_ + std::string(kChecks)) {
        const json checks = parseJson(decodedIn(pair, "value"));
        change.kind = Change::Kind::Checks;
        change.replica = textIn(checks, "from");
        for (const json& uuid : at(checks, "uuids")) {
            if (uuid.is_string()) {
                change.uuids.push_back(uuid.get<std::string>());
            }
        }
    } else if (auto entry = isPut ? entryIn(pair) : std::nullopt) {
        change.kind = Change::Kind::Put;
        change.entry = std::move(*entry);
    } else if (name.compare(0, entries.size(), entries) == 0) {
        change.kind = Change::Kind::Removal;
        change.uuid = name.substr(entries.size());
    }
    return change;
}

}  // namespace orvx::registry
