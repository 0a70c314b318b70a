// Answers and events of etcd with any JSON, or with keys and values of any bytes: they are read
// without a failure, and only entries are accepted as entries. An entry that was stored is read
// unchanged. One thread; there is no lock.

#include "Base64.h"
#include "EtcdEntries.h"
#include "Input.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using orvx::fuzz::Input;
using orvx::fuzz::require;
using orvx::fuzz::requireSame;
using orvx::registry::encode64;
using orvx::registry::Entry;
using orvx::registry::EtcdEntries;
using orvx::registry::isUuid;

constexpr const char* kUuid = "1c7b1b4e-5d0f-4a55-9a6e-0f3c8d6f2b11";

const EtcdEntries& entries() {
    static const EtcdEntries kEntries("/orvx-registry/");
    return kEntries;
}

void requireEntry(const Entry& entry) {
    require(isUuid(entry.uuid), "an entry has a uuid");
    require(!entry.path.empty(), "an entry has a path");
    require(entry.number != 0, "an entry has a number");
    require(json::parse(entry.service).is_object(), "an entry has an object as its service");
}

/// Reads the bytes with all functions that read answers of etcd.
void readAll(const json& answer) {
    for (const Entry& entry : entries().entriesIn(answer)) {
        requireEntry(entry);
    }
    for (const EtcdEntries::Change& change : entries().changesIn(answer)) {
        if (change.kind == EtcdEntries::Change::Kind::Put) {
            requireEntry(change.entry);
        }
    }
    const EtcdEntries::PathState state = entries().pathStateIn(answer);
    require(state.uuid.empty() || isUuid(state.uuid), "the state of a path has a uuid or none");
    EtcdEntries::revisionOf(answer);
    EtcdEntries::clusterOf(answer);
    EtcdEntries::hasSucceeded(answer);
    EtcdEntries::keyBeforeNextPage(answer);
    EtcdEntries::isCanceled(answer);
    EtcdEntries::leaseIn(answer);
}

json numberFrom(Input& input) {
    switch (input.below(4)) {
        case 0:
            return input.number();
        case 1:
            return std::to_string(input.number());
        case 2:
            return static_cast<std::int64_t>(input.number());
        default:
            return std::to_string(input.byte());
    }
}

/// JSON with the fields of a value, or arbitrary bytes.
std::string headFrom(Input& input) {
    if (input.below(4) == 0) {
        return input.text();
    }
    json head = json::object();
    for (const char* field : {"path", "address", "owner"}) {
        if (input.below(4) != 0) {
            head[field] = encode64(input.text());
        }
    }
    if (input.below(4) != 0) {
        head["created"] = numberFrom(input);
    }
    return head.dump();
}

std::string valueFrom(Input& input) {
    switch (input.below(5)) {
        case 0:
            return input.text();
        case 1:
            return kUuid + (' ' + std::to_string(static_cast<std::int64_t>(input.number())));
        case 2:
            return R"({"from":"a","uuids":[")" + std::string(kUuid) + R"(",)" + input.text() + "]}";
        case 3:
            return headFrom(input) + '\n' + input.text();
        default:
            return headFrom(input) + "\n{}";
    }
}

json pairFrom(Input& input) {
    static constexpr const char* kKeys[] = {"entries/", "paths/", "checks", ""};
    const std::string name = input.below(2) == 0 ? kUuid : input.text();
    const std::string key = std::string("/orvx-registry/") + kKeys[input.below(4)] + name;
    json pair{{"key", encode64(key)}, {"value", encode64(valueFrom(input))}};
    for (const char* field : {"create_revision", "mod_revision"}) {
        if (input.below(4) != 0) {
            pair[field] = numberFrom(input);
        }
    }
    return pair;
}

json answerFrom(Input& input) {
    json pairs = json::array();
    json events = json::array();
    for (unsigned left = input.below(4) + 1; left > 0; --left) {
        pairs.push_back(pairFrom(input));
        events.push_back({{"kv", pairs.back()}});
        if (input.below(2) == 0) {
            events.back()["type"] = "DELETE";
        }
    }
    return {{"header", {{"revision", numberFrom(input)}}},
            {"more", input.below(2) == 0},
            {"kvs", pairs},
            {"responses", {{{"response_range", {{"kvs", pairs}}}}}},
            {"events", events}};
}

/// The answer of etcd for an entry that was stored.
void readPut(Input& input) {
    Entry entry;
    entry.uuid = kUuid;
    entry.path = '/' + input.text();
    entry.address = input.text();
    entry.owner = "site";
    entry.created += std::chrono::milliseconds(input.number() >> 24U);
    entry.service = R"({"port":)" + std::to_string(input.byte()) + '}';
    json pair = entries().put(entry, 1)["success"][1]["request_put"];
    pair["create_revision"] = pair["mod_revision"] = "7";
    const auto read = entries().entriesIn({{"kvs", {pair}}});
    requireSame(read.size(), 1U, "the number of entries");
    requireSame(read[0].path, entry.path, "the path");
    requireSame(read[0].address, entry.address, "the address");
    requireSame(read[0].owner, entry.owner, "the owner");
    requireSame(read[0].service, entry.service, "the service");
    require(read[0].created == entry.created, "the time of the creation");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    switch (input.below(4)) {
        case 0:
            readAll(json::parse(input.rest(), nullptr, false));
            break;
        case 1:
            readPut(input);
            break;
        default:
            readAll(answerFrom(input));
    }
    return 0;
}
