// Tests the syntax of faults and the requests that they affect, with a clock that the test sets.
// Everything runs on the test's thread.
// There is no lock.

#include "Faults.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace orvx::registry {
namespace {

using namespace std::chrono_literals;
using boost::beast::http::verb;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

class AFault : public ::testing::Test {
  protected:
    void set(const std::string& text) { faults_.set(parseFaults(text, now_)); }

    unsigned status(verb method) { return faults_.apply(method, store_).status; }

    std::size_t entriesAfter(std::optional<verb> method) {
        faults_.apply(method, store_);
        return store_.entries().size();
    }

    EntryStore::Time now_{};
    EntryStore store_{{0s, 100, "", [this] { return now_; }}};
    Faults faults_;
};

TEST_F(AFault, AffectsEveryRequestOfTheProtocolUntilItIsRemoved) {
    set(R"({"fault":"status","status":503})");
    for (const verb method : {verb::put, verb::head, verb::delete_, verb::put}) {
        EXPECT_EQ(status(method), 503U);
    }
    for (const verb method : {verb::get, verb::post, verb::options, verb::unknown}) {
        EXPECT_EQ(status(method), 0U);
    }
    set("");
    EXPECT_EQ(status(verb::put), 0U);
}

TEST_F(AFault, AffectsOnlyRequestsOfItsMethod) {
    set(R"({"fault":"status","status":404,"method":"HEAD"})");
    EXPECT_EQ(status(verb::put), 0U);
    EXPECT_EQ(status(verb::head), 404U);
    set(R"({"fault":"status","status":404,"method":"GET"})");
    EXPECT_EQ(status(verb::get), 404U);
}

TEST_F(AFault, SkipsAndCountsOnlyMatchingRequests) {
    set(R"({"fault":"status","status":503,"method":"PUT","skip":1,"requests":2})");
    EXPECT_EQ(status(verb::head), 0U);
    EXPECT_EQ(status(verb::put), 0U);
    EXPECT_EQ(status(verb::put), 503U);
    EXPECT_EQ(status(verb::head), 0U);
    EXPECT_EQ(status(verb::put), 503U);
    EXPECT_EQ(status(verb::put), 0U);
    EXPECT_EQ(faults_.count(now_), 0U);
}

TEST_F(AFault, BeginsAndEndsAtItsTime) {
    set(R"({"fault":"status","status":503,"after":2,"seconds":0.5})");
    EXPECT_EQ(status(verb::put), 0U);
    now_ += 2s;
    EXPECT_EQ(status(verb::put), 503U);
    now_ += 499ms;
    EXPECT_EQ(status(verb::put), 503U);
    now_ += 1ms;
    EXPECT_EQ(status(verb::put), 0U);
    EXPECT_EQ(faults_.count(now_), 0U);
}

TEST_F(AFault, AffectsARequestTogetherWithOthers) {
    set("{\"fault\":\"delay\",\"milliseconds\":200}\n{\"fault\":\"delay\",\"milliseconds\":50}\n"
        "{\"fault\":\"status\",\"status\":500}\n{\"fault\":\"status\",\"status\":404}\n"
        "{\"fault\":\"reset\"}\n");
    const FaultEffect effect = faults_.apply(verb::head, store_);
    EXPECT_EQ(effect.delay, 250ms);
    EXPECT_EQ(effect.status, 404U);
    EXPECT_TRUE(effect.reset);
}

TEST_F(AFault, ForgetsAllEntriesOnce) {
    store_.put("/a", {});
    store_.put("/b", {});
    set(R"({"fault":"forget"})");
    EXPECT_EQ(entriesAfter(std::nullopt), 0U);
    store_.put("/a", {});
    EXPECT_EQ(entriesAfter(verb::head), 1U);
}

TEST_F(AFault, ForgetsTheEntryItNames) {
    const std::string uuid = store_.put("/a", {}).entry.uuid;
    store_.put("/b", {});
    set(R"({"fault":"forget","uuid":")" + uuid + "\"}");
    EXPECT_EQ(entriesAfter(verb::head), 1U);
    EXPECT_EQ(store_.find(uuid), nullptr);
}

TEST_F(AFault, ForgetsAnEntryAfterTheSkippedChecks) {
    store_.put("/a", {});
    set(R"({"fault":"forget","method":"HEAD","skip":1})");
    EXPECT_EQ(entriesAfter(std::nullopt), 1U);
    EXPECT_EQ(entriesAfter(verb::head), 1U);
    EXPECT_EQ(entriesAfter(verb::head), 0U);
}

TEST_F(AFault, IsShownWithItsRemainingValues) {
    set(R"({"fault":"status","status":503,"method":"PUT","requests":3,"after":1,"seconds":10})");
    now_ += 4s;
    status(verb::put);
    EXPECT_EQ(faults_.list(now_), nlohmann::json::parse(R"({"faults":[{"fault":"status",
        "status":503,"method":"PUT","skip":0,"requests":2,"after":0.0,"seconds":7.0}]})"));
}

TEST(FaultsInAText, MayHaveEmptyLinesAndRemarksBetweenThem) {
    const auto faults =
        parseFaults("# slow\n\n{\"fault\":\"delay\",\"milliseconds\":5}\r\n  # end", {});
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].delay, 5ms);
}

TEST(FaultsInAText, AreRefusedWithTheirLine) {
    const auto read = [] { parseFaults("# a remark\n{\"fault\":\"reset\"}\n{\"fault\":1}", {}); };
    EXPECT_THAT(read, ThrowsMessage<std::invalid_argument>(StartsWith("line 3: ")));
}

void expectRefused(const std::string& line, const std::string& why) {
    EXPECT_THAT([&line] { parseFaults(line, {}); },
                ThrowsMessage<std::invalid_argument>(HasSubstr(why)))
        << line;
}

TEST(FaultsInAText, AreRefusedWhenALineIsNotAnObject) {
    for (const char* line : {"reset", "[]", "1", "{", "\"fault\"", "\x80", "{} {}"}) {
        expectRefused(line, "not a JSON object");
    }
    expectRefused(std::string(100'000, '['), "not a JSON object");
}

TEST(FaultsInAText, AreRefusedWhenAFieldIsMissingOrMisspeltOrOutOfRange) {
    expectRefused("{}", "\"fault\" is missing");
    expectRefused(R"({"fault":"fire"})", "must be delay, reset, status or forget");
    expectRefused(R"({"fault":"delay"})", "\"milliseconds\" is missing");
    expectRefused(R"({"fault":"delay","milliseconds":0})", "\"milliseconds\" must be");
    expectRefused(R"({"fault":"delay","milliseconds":600001})", "\"milliseconds\" must be");
    expectRefused(R"({"fault":"delay","milliseconds":-5})", "\"milliseconds\" must be");
    expectRefused(R"({"fault":"status","status":200})", "\"status\" must be");
    expectRefused(R"({"fault":"reset","status":503})", "\"status\" has no meaning here");
    expectRefused(R"({"fault":"reset","methods":"PUT"})", "\"methods\" has no meaning here");
    expectRefused(R"({"fault":"reset","method":"POST"})", "\"method\" must be");
    expectRefused(R"({"fault":"reset","requests":0})", "\"requests\" must be");
    expectRefused(R"({"fault":"reset","requests":1.5})", "\"requests\" must be");
    expectRefused(R"({"fault":"reset","seconds":"1"})", "\"seconds\" must be");
    expectRefused(R"({"fault":"reset","after":-1})", "\"after\" must be");
    expectRefused(R"({"fault":"forget","uuid":7})", "\"uuid\" must be");
    expectRefused(R"({"fault":"forget","uuid":""})", "\"uuid\" must be");
}

TEST(FaultsInAText, AreRefusedWhenTheyAreTooMany) {
    std::string text;
    for (int i = 0; i < 100; ++i) {
        text += "{\"fault\":\"reset\"}\n";
    }
    EXPECT_EQ(parseFaults(text, {}).size(), 100U);
    expectRefused(text + "{\"fault\":\"reset\"}", "line 101: there are more than 100");
}

}  // namespace
}  // namespace orvx::registry
