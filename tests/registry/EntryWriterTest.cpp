// Tests the pieces of the list, while the entries change.
// Everything runs on the test's thread.
// There is no lock.

#include "EntryWriter.h"

#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "AdoptedEntry.h"

namespace orvx::registry {
namespace {

using nlohmann::json;
using ::testing::EndsWith;
using ::testing::IsEmpty;

json service(std::size_t size) {
    return {{"a", std::string(size, 'x')}};
}

/// Returns the text that is still to be written, and checks the length of its pieces.
std::string rest(EntryWriter& writer, const EntryStore& store) {
    std::string text;
    while (!writer.isDone()) {
        const std::string piece = writer.next(store).value();
        EXPECT_LE(piece.size(), 4 * EntryWriter::kPiece);
        text += piece;
    }
    return text;
}

TEST(TheEntryWriter, WritesTheListInTheOrderOfCreation) {
    EntryStore store;
    EntryWriter empty;
    EXPECT_EQ(rest(empty, store), R"({"entries":[]})");
    const Entry& first = store.put("/b", {{"port", 1}}).entry;
    const Entry& second = store.put("/a\"\xff", {}).entry;
    store.check(second.uuid);
    EntryWriter list;
    EXPECT_EQ(
        json::parse(rest(list, store)).at("entries"),
        json::array(
            {{{"uuid", first.uuid}, {"path", "/b"}, {"service", {{"port", 1}}}, {"checks", 0}},
             {{"uuid", second.uuid},
              {"path", "/a\"\xef\xbf\xbd"},
              {"service", nullptr},
              {"checks", 1}}}));
    EntryWriter single(first);
    EXPECT_EQ(rest(single, store), textOf(first));
}

TEST(TheEntryWriter, WritesEntriesWithEqualNumbersOnOnePage) {
    EntryStore store;
    for (const char* const uuid : {"c", "a", "b"}) {
        adopt(store, uuid, 2);
    }
    adopt(store, "d", 1);
    adopt(store, "e", 3);
    const auto uuids = [&store](std::optional<std::size_t> limit, std::uint64_t after) {
        ListQuery query;
        query.limit = limit;
        query.after = after;
        EntryWriter writer(std::move(query));
        const json list = json::parse(rest(writer, store));
        std::string all;
        for (const json& entry : list.at("entries")) {
            all += entry.at("uuid").get<std::string>();
        }
        return all + list.value("next", "").substr(list.value("next", "").find('-') + 1);
    };
    EXPECT_EQ(uuids({}, 0), "dabce");
    EXPECT_EQ(uuids(1, 0), "d1");
    EXPECT_EQ(uuids(1, 1), "abc2");
    EXPECT_EQ(uuids(1, 2), "e3");
    EXPECT_TRUE(store.remove("b"));
    EXPECT_EQ(uuids({}, 0), "dace");
}

TEST(TheEntryWriter, KeepsItsPiecesShortHoweverLongAnEntryIs) {
    EntryStore store;
    for (const std::size_t size : {1U, 1'000'000U, 0U, 8'150U, 16'300U, 16'384U, 100'000U}) {
        store.put('/' + std::string(8'000, '\xff') + std::to_string(size), service(size));
    }
    EntryWriter list;
    const json entries = json::parse(rest(list, store)).at("entries");
    ASSERT_EQ(entries.size(), 7U);
    EXPECT_EQ(entries[1].at("service"), service(1'000'000));
    EXPECT_EQ(entries[4].at("service"), service(16'300));
}

TEST(TheEntryWriter, StopsWhenAPartlyWrittenEntryChanges) {
    EntryStore store;
    const std::string uuid = store.put("/a", service(100'000)).entry.uuid;
    store.put("/b", service(100'000));
    EntryWriter replaced;
    EntryWriter removed;
    EntryWriter checked;
    for (EntryWriter* writer : {&replaced, &removed, &checked}) {
        writer->next(store);
    }
    store.check(uuid);
    EXPECT_THAT(rest(checked, store), EndsWith("]}"));
    store.put("/a", service(100'000));
    EXPECT_FALSE(replaced.next(store));
    store.remove(uuid);
    EXPECT_FALSE(removed.next(store));
}

TEST(TheEntryWriter, WritesEveryEntryThatExistsThroughoutExactlyOnce) {
    EntryStore store;
    std::minstd_rand random(1);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    for (int round = 0; round < 50; ++round) {
        std::map<std::string, bool> lives;  // by uuid
        for (const Entry& entry : store.entries()) {
            lives[entry.uuid] = true;
        }
        EntryWriter list;
        std::string text;
        while (!list.isDone()) {
            text += list.next(store).value();
            for (std::size_t changes = below(50); changes > 0 && !list.isDone(); --changes) {
                const auto uuid =
                    store.put('/' + std::to_string(below(500)), service(below(400))).entry.uuid;
                if (below(5) == 0) {
                    lives.erase(uuid);
                    store.remove(uuid);
                }
            }
        }
        const json written = json::parse(text);
        for (const json& entry : written.at("entries")) {
            const std::string uuid = entry.at("uuid");
            lives.erase(uuid);
            ASSERT_EQ(text.find(uuid), text.rfind(uuid));
        }
        ASSERT_THAT(lives, IsEmpty());
    }
}

}  // namespace
}  // namespace orvx::registry
