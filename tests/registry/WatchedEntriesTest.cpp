// The copy of the list that the events of the stream make. Everything runs on the test's thread;
// there is no lock.

#include "WatchedEntries.h"

#include <gtest/gtest.h>

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

    std::optional<json> fetched;
    ListQuery query;
    WatchedEntries entries{query, [this](const std::string&) { return fetched; }};
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

TEST_F(TheWatchedEntries, AreAllThereThoughTheirNumbersAreEqual) {
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

TEST_F(TheWatchedEntries, HaveTheWholeServiceWhereTheStreamCutsIt) {
    json cut = entry("a", 1, {{"name", "lamp"}});
    cut["cut"] = 7000;
    fetched = entry("a", 1, {{"name", "lamp"}, {"more", 1}});
    EXPECT_TRUE(list({cut}));
    EXPECT_NE(entries.text().find("\"more\":1"), std::string::npos);
    fetched.reset();
    EXPECT_TRUE(put(cut)) << "it is gone";
    EXPECT_EQ(uuidsIn(entries), "");
}

}  // namespace
}  // namespace orvx::registry
