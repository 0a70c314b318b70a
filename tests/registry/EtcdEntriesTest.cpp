// Tests keys, values and transactions with a real etcd, and values that this program does not
// write.

#include "EtcdEntries.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>

#include "EtcdProcess.h"
#include "RunningEtcdClient.h"

namespace orvx::registry {
namespace {

using nlohmann::json;
using ::testing::IsEmpty;

const std::string kUuid = "00000000-0000-4000-8000-000000000001";

Entry lamp(const std::string& uuid = kUuid) {
    Entry entry;
    entry.uuid = uuid;
    entry.path = "/lamp";
    entry.service = R"({"a":1})";
    return entry;
}

class ATransactionOfEtcd : public ::testing::Test {
  protected:
    json ask(const std::string& call, const json& body) {
        return client_.ask(call, body).answer.value();
    }
    bool put(const Entry& entry, std::uint64_t revision) {
        answer_ = ask("kv/txn", entries_.put(entry, revision));
        return EtcdEntries::hasSucceeded(answer_);
    }
    bool remove(Entry entry, std::uint64_t revision) {
        entry.etcdRevision = revision;
        const json lease = ask("lease/grant", EtcdEntries::grantLease());
        answer_ = ask("kv/txn", entries_.remove({entry}, EtcdEntries::leaseIn(lease), 0));
        return EtcdEntries::hasSucceeded(answer_);
    }
    std::uint64_t revision() const { return EtcdEntries::revisionOf(answer_); }
    std::vector<Entry> list() {
        return entries_.entriesIn(ask("kv/range", entries_.list({}, 10, 0)));
    }

    EtcdProcess etcd_;
    RunningEtcdClient client_{optionsOf({etcd_.url()})};
    EtcdEntries entries_{"/test/"};
    json answer_;
};

TEST_F(ATransactionOfEtcd, PreservesAllFieldsOfAnEntry) {
    Entry entry = lamp();
    entry.path = "/\xff ä";
    entry.address = "ä:1";
    entry.owner = "lamps";
    entry.created = std::chrono::system_clock::time_point(std::chrono::milliseconds(1'234));
    ASSERT_TRUE(put(entry, 0));
    const Entry kept = list().at(0);
    EXPECT_EQ(kept.uuid, entry.uuid);
    EXPECT_EQ(kept.path, entry.path);
    EXPECT_EQ(kept.address, entry.address);
    EXPECT_EQ(kept.owner, entry.owner);
    EXPECT_EQ(kept.created, entry.created);
    EXPECT_EQ(kept.service, entry.service);
    EXPECT_EQ(kept.number, revision());
    EXPECT_EQ(kept.etcdRevision, revision());
}

TEST_F(ATransactionOfEtcd, ThatCreatesFailsIfThePathHasAnEntryAndReturnsItsState) {
    ASSERT_TRUE(put(lamp(), 0));
    const auto created = revision();
    EXPECT_FALSE(put(lamp("00000000-0000-4000-8000-000000000002"), 0));
    EXPECT_EQ(entries_.pathStateIn(answer_).uuid, kUuid);
    EXPECT_EQ(entries_.pathStateIn(answer_).revision, created);
}

TEST_F(ATransactionOfEtcd, ThatCreatesDoesNothingWhenItArrivesAfterTheRemoval) {
    ASSERT_TRUE(put(lamp(), 0));
    ASSERT_TRUE(remove(lamp(), revision()));
    const auto removed = revision();
    EXPECT_FALSE(put(lamp(), 0));
    EXPECT_THAT(list(), IsEmpty());
    EXPECT_EQ(entries_.pathStateIn(answer_).uuid, "");
    EXPECT_TRUE(put(lamp(), entries_.pathStateIn(answer_).revision));
    EXPECT_EQ(entries_.pathStateIn(answer_).revision, 0U);
    EXPECT_GT(revision(), removed);
}

TEST_F(ATransactionOfEtcd, ThatReplacesDoesNothingWhenItArrivesAfterALaterOne) {
    ASSERT_TRUE(put(lamp(), 0));
    const auto created = revision();
    Entry later = lamp();
    later.service = R"({"a":2})";
    ASSERT_TRUE(put(later, created));
    EXPECT_FALSE(put(lamp(), created));
    EXPECT_EQ(list().at(0).service, later.service);
}

TEST_F(ATransactionOfEtcd, ThatRemovesDoesNothingWhenItArrivesAfterALaterPut) {
    ASSERT_TRUE(put(lamp(), 0));
    const auto created = revision();
    ASSERT_TRUE(put(lamp(), created));
    const auto replaced = revision();
    EXPECT_FALSE(remove(lamp(), created));
    EXPECT_EQ(entries_.revisionsIn(answer_).at(kUuid), replaced);
    EXPECT_TRUE(remove(lamp(), replaced));
    EXPECT_FALSE(remove(lamp(), replaced));
    EXPECT_THAT(entries_.revisionsIn(answer_), IsEmpty());
}

TEST_F(ATransactionOfEtcd, ThatExpiresDoesNothingWhenChecksWereWrittenMeanwhile) {
    Entry entry = lamp();
    ASSERT_TRUE(put(entry, 0));
    entry.etcdRevision = revision();
    const auto written = EtcdEntries::revisionOf(ask("kv/put", entries_.putChecks("a", {})));
    const auto lease = EtcdEntries::leaseIn(ask("lease/grant", EtcdEntries::grantLease()));
    const json expire = entries_.remove({entry}, lease, written);
    const auto later = EtcdEntries::revisionOf(ask("kv/put", entries_.putChecks("a", {kUuid})));
    EXPECT_FALSE(EtcdEntries::hasSucceeded(ask("kv/txn", expire)));
    EXPECT_TRUE(EtcdEntries::hasSucceeded(ask("kv/txn", entries_.remove({entry}, lease, later))));
}

TEST_F(ATransactionOfEtcd, ThatRemovesManyRemovesNoneIfOneHasChanged) {
    std::vector<Entry> all;
    for (std::size_t i = 0; i < EtcdEntries::kMaxRemovals; ++i) {
        Entry entry =
            lamp("00000000-0000-4000-8000-0000000001" + std::to_string(10 + static_cast<int>(i)));
        entry.path += std::to_string(i);
        ASSERT_TRUE(put(entry, 0));
        entry.etcdRevision = revision();
        all.push_back(entry);
    }
    const json lease = ask("lease/grant", EtcdEntries::grantLease());
    --all.back().etcdRevision;
    const auto removeAll = [&] {
        return EtcdEntries::hasSucceeded(
            ask("kv/txn", entries_.remove(all, EtcdEntries::leaseIn(lease), 0)));
    };
    EXPECT_FALSE(removeAll());
    EXPECT_EQ(list().size(), 10U);  // of the first page
    ++all.back().etcdRevision;
    EXPECT_TRUE(removeAll());
    EXPECT_THAT(list(), IsEmpty());
}

json pairOf(const std::string& key, const std::string& value) {
    return {{"key", encode64(key)},
            {"value", encode64(value)},
            {"create_revision", "2"},
            {"mod_revision", "3"}};
}

TEST(AKeyOfEtcd, IsNoEntryIfAnyPartOfItIsMissing) {
    const EtcdEntries entries("/test/");
    const auto count = [&](const json& pair) {
        return entries.entriesIn({{"kvs", json::array({pair})}}).size();
    };
    const std::string name = "/test/entries/" + kUuid;
    const std::string good = R"({"path":"L2E="})"
                             "\n{}";
    EXPECT_EQ(count(pairOf(name, good)), 1U);
    EXPECT_EQ(count(pairOf("/other/entries/" + kUuid, good)), 0U);
    EXPECT_EQ(count(pairOf("/test/entries/" + kUuid + "x", good)), 0U);
    for (const char* value :
         {"", "\n", "{}\n{}", R"({"path":"L2E="})", "{\"path\":\"L2E=\"}\n[]", "x\n{}", "[]\n{}",
          "{\"path\":\"L2E=\"}\n{", "{\"path\":\"L2E=\"}\n{\n}", "{\"path\":1}\n{}",
          "{\"path\":\"?\"}\n{}"}) {
        EXPECT_EQ(count(pairOf(name, value)), 0U) << value;
    }
    // These values would make the list of all entries invalid JSON, or make readers recurse.
    const std::string head = "{\"path\":\"L2E=\"}\n";
    EXPECT_EQ(count(pairOf(name, head + "\xef\xbb\xbf{}")), 0U);
    EXPECT_EQ(count(pairOf(name, head + "{\"a\":1}" + '\0' + "}],\"b\":[{")), 0U);
    EXPECT_EQ(
        count(pairOf(name, head + "{\"a\":" + std::string(64, '[') + std::string(64, ']') + "}")),
        0U);
    json numbered = pairOf(name, good);
    numbered["create_revision"] = "9223372036854775807";
    EXPECT_EQ(count(numbered), 1U);
    numbered["create_revision"] = "9223372036854775808";  // etcd's revisions end before
    EXPECT_EQ(count(numbered), 0U);
    EXPECT_EQ(count(json()), 0U);
    EXPECT_EQ(count({{"key", 1}, {"value", json::array()}}), 0U);
}

TEST(AnEventOfEtcd, IsIgnoredIfItsKeyOrValueIsUnknown) {
    const EtcdEntries entries("/test/");
    using Kind = EtcdEntries::Change::Kind;
    const auto kindOf = [&](const json& event) {
        return entries.changesIn({{"events", json::array({event})}}).at(0).kind;
    };
    EXPECT_EQ(kindOf(json()), Kind::Other);
    EXPECT_EQ(kindOf({{"type", "DELETE"}, {"kv", pairOf("/test/other", "")}}), Kind::Other);
    EXPECT_EQ(kindOf({{"type", "DELETE"}, {"kv", pairOf("/test/entries/x", "")}}), Kind::Removal);
    EXPECT_EQ(kindOf({{"kv", pairOf("/test/checks", "x")}}), Kind::Checks);
    EXPECT_EQ(kindOf({{"kv", pairOf("/test/entriesx", "x")}}), Kind::Other);
    EXPECT_THAT(entries.changesIn(json()), IsEmpty());
    EXPECT_EQ(entries.changesIn({{"events", {{{"kv", pairOf("/test/x", "")}}}}}).at(0).revision,
              3U);
}

TEST(AnEventOfEtcd, RemovesAnEntryWhoseNewValueIsNone) {
    const EtcdEntries entries("/test/");
    const json event{{"kv", pairOf("/test/entries/" + kUuid, "x")}};
    const auto changes = entries.changesIn({{"events", json::array({event})}});
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].kind, EtcdEntries::Change::Kind::Removal);
    EXPECT_EQ(changes[0].uuid, kUuid);
    EXPECT_EQ(changes[0].revision, 3U);
}

TEST(TheNameOfAnEntry, IsAUuidInLowerCase) {
    EXPECT_TRUE(isUuid(kUuid));
    for (const char* text :
         {"", "x", "00000000-0000-4000-8000-00000000000", "00000000-0000-4000-8000-0000000000011",
          "00000000-0000-4000-8000-00000000000A", "000000000000-4000-8000-0000000000010"}) {
        EXPECT_FALSE(isUuid(text)) << text;
    }
}

}  // namespace
}  // namespace orvx::registry
