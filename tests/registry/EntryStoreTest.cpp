// Tests the store without a file.
// Everything runs on the test's thread.
// There is no lock.

#include "EntryStore.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <set>
#include <string>

#include "AdoptedEntry.h"

namespace orvx::registry {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::MatchesRegex;

TEST(TheEntryStore, NamesAnEntryByARandomUuidInLowerCase) {
    EntryStore store;
    std::set<std::string> uuids;
    for (int i = 0; i < 100; ++i) {
        const std::string& uuid = store.put("/" + std::to_string(i), {}).entry.uuid;
        EXPECT_THAT(uuid, MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-"
                                       "[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
        uuids.insert(uuid);
    }
    EXPECT_EQ(uuids.size(), 100U);
}

TEST(TheEntryStore, FindsAnEntryByItsUuid) {
    EntryStore store;
    const std::string uuid = store.put("/a", {{"name", "a"}}).entry.uuid;
    store.put("/b", {{"name", "b"}});
    const Entry* entry = store.find(uuid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->path, "/a");
    EXPECT_EQ(entry->service, R"({"name":"a"})");
}

TEST(TheEntryStore, MovesAnEntryThatAnotherProcessKeepsToItsNewPath) {
    EntryStore store;
    Entry entry;
    entry.uuid = "a";
    entry.number = 1;
    entry.path = "/a";
    entry.service = "{}";
    store.adopt(entry);
    const std::uint64_t before = store.revision();
    entry.path = "/b";
    store.adopt(entry);
    EXPECT_EQ(store.findByPath("/a"), nullptr);
    ASSERT_NE(store.findByPath("/b"), nullptr);
    EXPECT_EQ(store.findByPath("/b"), store.find("a"));
    EXPECT_EQ(store.entries().size(), 1U);
    EXPECT_NE(store.nextRemoval(before), nullptr);
}

TEST(TheEntryStore, MovesAnEntryThatAnotherProcessHasCreatedAgainToItsNewPlace) {
    EntryStore store;
    adopt(store, "a", 1);
    adopt(store, "b", 2);
    adopt(store, "a", 3);
    EXPECT_EQ(store.entries().size(), 2U);
    EXPECT_EQ(store.find("a")->number, 3U);
    EXPECT_EQ(store.entryFrom(0, ""), store.find("b"));
    EXPECT_EQ(store.entryFrom(3, ""), store.find("a"));
}

TEST(TheEntryStore, FindsNothingUnderAPathOrAnUnknownUuid) {
    EntryStore store;
    store.put("/a", {});
    EXPECT_EQ(store.find("/a"), nullptr);
    EXPECT_EQ(store.find(""), nullptr);
}

TEST(TheEntryStore, KeepsTheUuidOfAPathThatIsPutAgain) {
    EntryStore store;
    const auto first = store.put("/a", {{"port", 1}});
    const auto second = store.put("/a", {{"port", 2}});
    EXPECT_TRUE(first.created);
    EXPECT_FALSE(second.created);
    EXPECT_EQ(&second.entry, &first.entry);
    EXPECT_EQ(second.entry.service, R"({"port":2})");
    EXPECT_EQ(store.entries().size(), 1U);
}

TEST(TheEntryStore, ReturnsThePreviousAddressWhenAPutChangesTheHostOrPort) {
    EntryStore store;
    const auto put = [&](nlohmann::json service) {
        return store.put("/a", std::move(service)).movedFrom;
    };
    EXPECT_EQ(put({{"host", "x"}, {"port", 1}}), "");
    EXPECT_EQ(put({{"host", "x"}, {"port", 1}, {"name", "other"}}), "");
    EXPECT_EQ(put({{"host", "y"}, {"port", 1}}), "x:1");
    EXPECT_EQ(put({{"host", "y"}, {"port", 2}}), "y:1");
    EXPECT_EQ(put({{"port", 2}}), "y:2");
    EXPECT_EQ(put({{"host", true}, {"port", "2"}}), "?:2");
    EXPECT_EQ(put({}), "");  // neither host nor port before
    EXPECT_EQ(store.entries().front().moved->from, "?:2");
    store.clear();
    EXPECT_EQ(put({{"host", "x"}, {"port", 1}}), "");
}

TEST(TheEntryStore, CutsAHostThatIsLongerThanAnyHostName) {
    EntryStore store;
    store.put("/a", {{"host", std::string(1'000, 'x')}, {"port", 1}});
    store.put("/a", {{"host", "y"}, {"port", 1}});
    EXPECT_EQ(store.entries().front().moved->from, std::string(300, 'x') + ":1");
}

TEST(TheEntryStore, LetsAnOwnerReplaceItsEntriesAfterItsLimitWasLowered) {
    EntryStore store;
    const Owner two{"lamps", 2, 1'000};
    store.put("/a", {}, two);
    store.put("/b", {}, two);
    const Owner one{"lamps", 1, 1'000};
    EXPECT_FALSE(store.put("/a", {}, one).created);
    EXPECT_THROW(store.put("/c", {}, one), StoreFull);
}

TEST(TheEntryStore, KeepsTheCountOfChecksWhenThePathIsPutAgain) {
    EntryStore store;
    const Entry& entry = store.put("/a", {}).entry;
    EXPECT_TRUE(store.check(entry.uuid));
    store.put("/a", {});
    EXPECT_TRUE(store.check(entry.uuid));
    EXPECT_EQ(entry.checks, 2U);
    EXPECT_FALSE(store.check("/a"));
}

TEST(TheEntryStore, ListsEntriesInTheOrderOfTheirCreation) {
    EntryStore store;
    store.put("/c", {});
    store.put("/a", {});
    store.put("/b", {});
    store.put("/c", {});
    EXPECT_THAT(store.entries(), ElementsAre(Field(&Entry::path, "/c"), Field(&Entry::path, "/a"),
                                             Field(&Entry::path, "/b")));
}

TEST(TheEntryStore, ReturnsARemovedEntryAndNoLongerFindsIt) {
    EntryStore store;
    const std::string uuid = store.put("/a", {{"name", "a"}}).entry.uuid;
    const auto removed = store.remove(uuid);
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->uuid, uuid);
    EXPECT_EQ(removed->path, "/a");
    EXPECT_EQ(store.find(uuid), nullptr);
    EXPECT_FALSE(store.remove(uuid));
    EXPECT_TRUE(store.entries().empty());
}

TEST(TheEntryStore, CreatesANewEntryForAPathWhoseEntryWasRemoved) {
    EntryStore store;
    const std::string uuid = store.put("/a", {}).entry.uuid;
    store.remove(uuid);
    const auto again = store.put("/a", {});
    EXPECT_TRUE(again.created);
    EXPECT_NE(again.entry.uuid, uuid);
}

}  // namespace
}  // namespace orvx::registry
