// Tests the copy of the list that the events of the stream update. Everything runs on the test's
// thread; there is no lock.

#include "WatchedEntries.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "Entry.h"

namespace orvx::registry {
namespace {

using nlohmann::json;

json entry(const std::string& uuid, int number, json service = json::object()) {
    return {{"uuid", uuid}, {"number", number}, {"path", '/' + uuid}, {"service", service}};
}

std::string uuidsIn(const WatchedEntries& entries) {
    std::string uuids;
    const json list = json::parse(entries.text());
    for (const json& listed : list.at("entries")) {
        uuids += listed.at("uuid").get<std::string>();
    }
    return uuids;
}

class TheWatchedEntries : public ::testing::Test {
  protected:
    bool put(const json& data) { return entries.apply("put", data); }
    bool remove(const std::string& uuid) { return entries.apply("removed", {{"uuid", uuid}}); }
    bool list(std::initializer_list<json> listed) {
        EXPECT_FALSE(entries.apply("list", {{"entries", listed.size()}}));
        for (const json& data : listed) {
            EXPECT_FALSE(put(data)) << "the list is not complete";
        }
        return entries.apply("listed", json::object());
    }

    /// The entry as the stream contains it if its service is long.
    static json cut(const std::string& uuid, int number, json service = json::object()) {
        json shown = entry(uuid, number, std::move(service));
        shown["cut"] = 7000;
        return shown;
    }
    /// The entries that are fetched with an event that changes nothing.
    std::vector<std::string> fetchesOf(std::chrono::seconds later) {
        asked.clear();
        now += later;
        entries.apply("state", json::object());
        return asked;
    }
    std::optional<json> fetch(const std::string& uuid) {
        asked.push_back(uuid);
        if (fails.count(uuid) != 0) {
            throw FetchFailure("partial message", retryAfter);
        }
        return fetched;
    }

    std::optional<json> fetched;
    std::set<std::string> fails;  // the uuids of entries that cannot be fetched
    std::chrono::seconds retryAfter{0};
    std::vector<std::string> asked;
    WatchedEntries::Time now{std::chrono::hours(1)};
    ListQuery query;
    WatchedEntries entries{query, [this](const std::string& uuid) { return fetch(uuid); },
                           [this] { return now; }};
};

TEST_F(TheWatchedEntries, AreTheListAndItsChangesInTheOrderOfCreation) {
    EXPECT_TRUE(list({entry("b", 2), entry("a", 1)}));
    EXPECT_EQ(uuidsIn(entries), "ab");
    EXPECT_TRUE(put(entry("c", 3)));
    EXPECT_TRUE(remove("a"));
    EXPECT_EQ(entries.text(), R"({"entries":[{"path":"/b","service":{},"uuid":"b"},)"
                              R"({"path":"/c","service":{},"uuid":"c"}]})"
                              "\n");
    EXPECT_TRUE(list({entry("d", 1)}));
    EXPECT_EQ(uuidsIn(entries), "d");
}

TEST_F(TheWatchedEntries, AreCompleteAlthoughTheirNumbersAreEqual) {
    list({entry("b", 1), entry("a", 1), entry("c", 1)});
    EXPECT_EQ(uuidsIn(entries), "abc");
    EXPECT_TRUE(remove("b"));
    EXPECT_EQ(uuidsIn(entries), "ac");
}

TEST_F(TheWatchedEntries, AreInAscii) {
    list({entry("a", 1, {{"name", "\xc3\xa4\x1b"}})});
    EXPECT_NE(entries.text().find(R"("\u00e4\u001b")"), std::string::npos);
}

TEST_F(TheWatchedEntries, ChangeOnlyWhenTheirTextsDo) {
    list({entry("a", 1)});
    EXPECT_FALSE(put(entry("a", 1)));
    EXPECT_FALSE(remove("b"));
    EXPECT_FALSE(entries.apply("checked", json::array()));
    EXPECT_FALSE(entries.apply("state", json::object()));
    EXPECT_TRUE(put(entry("a", 1, {{"host", "10.0.0.1"}})));
}

TEST_F(TheWatchedEntries, AreThoseThatMatch) {
    query.name = "lamp";
    query.category = "light";
    WatchedEntries lamps(query, [](const std::string&) { return std::nullopt; });
    const json lamp{{"name", "lamp"}, {"serviceCategories", {"light", "x"}}};
    lamps.apply("listed", json::object());
    EXPECT_TRUE(lamps.apply("put", entry("a", 1, lamp)));
    EXPECT_FALSE(lamps.apply("put", entry("b", 2, {{"name", "lamp"}})));
    EXPECT_TRUE(lamps.apply("put", entry("a", 1, {{"name", "bell"}}))) << "it no longer matches";
    EXPECT_EQ(uuidsIn(lamps), "");
}

TEST_F(TheWatchedEntries, ContainTheWholeServiceThatTheStreamHasCut) {
    fetched = entry("a", 1, {{"name", "lamp"}, {"more", 1}});
    EXPECT_TRUE(list({cut("a", 1, {{"name", "lamp"}})}));
    EXPECT_NE(entries.text().find("\"more\":1"), std::string::npos);
    fetched.reset();
    EXPECT_TRUE(put(cut("a", 1))) << "it is gone";
    EXPECT_EQ(uuidsIn(entries), "");
}

// Before, long entries of other names that were replaced often delayed the list.
TEST_F(TheWatchedEntries, AreNotFetchedIfTheirNameShowsThatTheyDoNotMatch) {
    const std::string longName(201, 'x');
    for (const std::string& name : {std::string("lamp"), longName}) {
        query.name = name;
        asked.clear();
        WatchedEntries lamps(query, [this](const std::string& uuid) { return fetch(uuid); });
        lamps.apply("listed", json::object());
        for (const json& other : {json("bell"), json(std::string(200, 'y') + "…"), json(1)}) {
            EXPECT_FALSE(lamps.apply("put", cut("a", 1, {{"name", other}})));
        }
        EXPECT_EQ(asked, std::vector<std::string>{});
        fetched = entry("a", 1, {{"name", name}});
        EXPECT_TRUE(lamps.apply("put", cut("a", 1, {{"name", shortened(name)}})));
        fetched = entry("b", 2, {{"name", {"bell", name}}});
        EXPECT_TRUE(lamps.apply("put", cut("b", 2))) << "a list of names is not in the event";
        EXPECT_TRUE(lamps.apply("put", cut("a", 1, {{"name", "bell"}})));
        EXPECT_EQ(uuidsIn(lamps), "b");
    }
}

TEST_F(TheWatchedEntries, KeepAServiceUntilTheNextOneIsFetched) {
    list({entry("a", 1)});
    fails = {"a"};
    EXPECT_FALSE(put(cut("a", 1)));
    EXPECT_EQ(uuidsIn(entries), "a");
    EXPECT_TRUE(put(entry("b", 2))) << "the others go on";
    EXPECT_TRUE(list({cut("a", 3), entry("b", 2)})) << "also in a new list";
    EXPECT_EQ(uuidsIn(entries), "ba");
    fails.clear();
    fetched = entry("a", 3, {{"more", 1}});
    now += std::chrono::seconds(1);
    EXPECT_TRUE(entries.apply("state", json::object()));
    EXPECT_NE(entries.text().find("\"more\":1"), std::string::npos);
    EXPECT_FALSE(entries.isWaiting());
    EXPECT_TRUE(list({entry("b", 2)}));
    EXPECT_EQ(uuidsIn(entries), "b");
}

TEST_F(TheWatchedEntries, KeepTheServiceOfTheNewListRatherThanOfTheOneBefore) {
    list({entry("a", 1, {{"port", 1}})});
    fails = {"a"};
    EXPECT_TRUE(list({entry("a", 1, {{"port", 2}}), cut("a", 1)}));
    EXPECT_NE(entries.text().find("\"port\":2"), std::string::npos);
}

TEST_F(TheWatchedEntries, ThatCannotBeFetchedAreFetchedAgainAfterAGrowingPause) {
    using std::chrono::seconds;
    const std::vector<std::string> none;
    const std::vector<std::string> one{"a"};
    fails = {"a"};
    list({cut("a", 1)});
    for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60}) {
        put(cut("a", 1));
        EXPECT_EQ(fetchesOf(seconds(pause - 1)), none);
        EXPECT_EQ(fetchesOf(seconds(1)), one);
    }
    fetched = entry("b", 2);
    now += seconds(1);
    EXPECT_TRUE(put(cut("b", 2))) << "the pause of another entry is its own";
    EXPECT_TRUE(entries.isWaiting());
    EXPECT_FALSE(remove("a"));
    EXPECT_FALSE(entries.isWaiting());
}

TEST_F(TheWatchedEntries, AreNotFetchedBeforeTheTimeThatTheRegistryRequests) {
    using std::chrono::seconds;
    fails = {"a", "b"};
    retryAfter = seconds(5);
    list({cut("a", 1), cut("b", 2)});
    EXPECT_EQ(asked.size(), 1U) << "a refusal is for all entries";
    EXPECT_EQ(fetchesOf(seconds(4)).size(), 0U);
    retryAfter = seconds(86'400);
    EXPECT_EQ(fetchesOf(seconds(1)).size(), 1U);
    fails.clear();
    EXPECT_EQ(fetchesOf(seconds(59)).size(), 0U);
    EXPECT_EQ(fetchesOf(seconds(1)).size(), 2U);
}

TEST_F(TheWatchedEntries, AreCompleteWithoutOneThatCannotBeFetchedAfterHalfAMinute) {
    fails = {"a"};
    EXPECT_FALSE(list({cut("a", 1), entry("b", 2)})) << "the others would get all requests";
    now += std::chrono::seconds(29);
    EXPECT_FALSE(put(entry("c", 3)));
    now += std::chrono::seconds(1);
    EXPECT_TRUE(entries.apply("state", json::object()));
    EXPECT_EQ(uuidsIn(entries), "bc");
    fails.clear();
    fetched = entry("a", 1);
    now += std::chrono::seconds(60);
    EXPECT_TRUE(entries.apply("state", json::object()));
    EXPECT_EQ(uuidsIn(entries), "abc");
}

TEST_F(TheWatchedEntries, AreCompleteAsSoonAsAllAreFetched) {
    fails = {"a"};
    EXPECT_FALSE(list({cut("a", 1), entry("b", 2)}));
    fails.clear();
    fetched = entry("a", 1);
    now += std::chrono::seconds(1);
    EXPECT_TRUE(entries.apply("state", json::object()));
    EXPECT_EQ(uuidsIn(entries), "ab");
}

}  // namespace
}  // namespace orvx::registry
