// Tests the list with filters and its pages, without sockets.
// Everything runs on the test's thread.
// There is no lock.

#include "ListQuery.h"

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "SynchronousAnswer.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class TheQuery : public ::testing::Test {
  protected:
    void put(const std::string& path, const json& service) { store_.put(path, service); }

    Response get(const std::string& target) {
        return answerOf(store_, Request(http::verb::get, target, 11));
    }

    json list(const std::string& target) { return json::parse(get(target).body()); }

    std::vector<std::string> paths(const std::string& target) {
        std::vector<std::string> found;
        const json all = list(target);
        for (const json& entry : all.at("entries")) {
            found.push_back(entry.at("path"));
        }
        return found;
    }

    EntryStore store_;
};

TEST_F(TheQuery, FindsServicesByNameCategoryAndVersion) {
    put("/1", {{"name", "lamp"}, {"versions", {"1.0", "2.0"}}, {"serviceCategories", {"light"}}});
    put("/2", {{"name", "lamp"}, {"versions", {"1.0"}}, {"serviceCategories", {"light", "old"}}});
    put("/3", {{"name", "bell"}, {"versions", {"2.0"}}, {"description", "lamp"}});
    put("/4", {{"title", "lamp"}, {"versions", "2.0"}});
    EXPECT_THAT(paths("/?"), ElementsAre("/1", "/2", "/3", "/4"));
    EXPECT_THAT(paths("/?name=lamp"), ElementsAre("/1", "/2"));
    EXPECT_THAT(paths("/?version=2.0"), ElementsAre("/1", "/3", "/4"));
    EXPECT_THAT(paths("/?category=old"), ElementsAre("/2"));
    EXPECT_THAT(paths("/?name=lamp&version=2.0&category=light"), ElementsAre("/1"));
    EXPECT_THAT(paths("/?name=lam"), IsEmpty());
    EXPECT_THAT(paths("/?name="), IsEmpty());
    EXPECT_EQ(list("/?name=none").dump(), R"({"entries":[]})");
}

TEST_F(TheQuery, IsDecoded) {
    put("/1", {{"name", "Küche \"1\"\n+&"}});
    EXPECT_THAT(paths("/?name=K%C3%BCche+%221%22%0a%2B%26"), ElementsAre("/1"));
    EXPECT_THAT(paths("/?name=K\xc3\xbc"
                      "che%20%221%22%0A%2b%26"),
                ElementsAre("/1"));
    EXPECT_THAT(paths("/?name=%ff"), IsEmpty());
}

TEST_F(TheQuery, ReturnsPagesInAStableOrderDespiteChanges) {
    std::vector<std::string> uuids;
    for (int i = 0; i < 7; ++i) {
        uuids.push_back(store_.put('/' + std::to_string(i), {{"name", "a"}}).entry.uuid);
    }
    const json first = list("/?limit=3&name=a");
    EXPECT_EQ(first.at("entries").size(), 3U);
    const std::string next = first.at("next");
    store_.remove(uuids[2]);  // the last one of the page
    store_.remove(uuids[4]);
    put("/3", {{"name", "a"}});
    put("/7", {{"name", "a"}});
    EXPECT_THAT(paths("/?limit=3&name=a&after=" + next), ElementsAre("/3", "/5", "/6"));
    const std::string last = list("/?limit=3&after=" + next).at("next");
    EXPECT_THAT(paths("/?limit=3&after=" + last), ElementsAre("/7"));
    EXPECT_FALSE(list("/?limit=3&after=" + last).contains("next"));
    EXPECT_THAT(paths("/?after=" + next), ElementsAre("/3", "/5", "/6", "/7"));
}

TEST_F(TheQuery, IsRefusedWhenItIsInvalid) {
    for (const char* target :
         {"/?x=1", "/?nam=a", "/?name=a&name=b", "/?name=%", "/?name=%zz", "/?limit=0",
          "/?limit=10001", "/?limit=-1", "/?limit=", "/?limit=1x", "/?limit=99999999999999999999",
          "/?after=", "/?after=x", "/?after=-", "/?&name=a", "/?name=a&&"}) {
        EXPECT_EQ(get(target).result(), http::status::bad_request) << target;
    }
    EXPECT_EQ(get("/?after=" + store_.places() + "-18446744073709551615").result(),
              http::status::bad_request);
    const Response gone = get("/?after=00000000-1");
    EXPECT_EQ(gone.result(), http::status::gone);
    EXPECT_THAT(gone.body(), HasSubstr("another run"));
}

TEST_F(TheQuery, ExaminesABoundedPartOfTheEntriesForEachPiece) {
    for (int i = 0; i < 5'000; ++i) {
        put('/' + std::to_string(i), {{"name", "b"}, {"description", "lamp"}});
    }
    put("/lamp", {{"name", "lamp"}});
    EntryWriter writer(parseListQuery("name=lamp", store_.places()));
    std::string text;
    int pieces = 0;
    for (; !writer.isDone(); ++pieces) {
        text += writer.next(store_).value();
    }
    EXPECT_EQ(json::parse(text).at("entries").size(), 1U);
    EXPECT_GT(pieces, 4);
}

}  // namespace
}  // namespace orvx::registry
