// Tests the syntax of a file of tokens, and how a token is found by its secret.
// Everything runs on the test's thread.
// There is no lock.

#include "Tokens.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace orvx::registry {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// The hashes of "secret" and "other", as sha256sum(1) prints them.
constexpr const char* kSecret = "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
constexpr const char* kOther = "d9298a10d1b0735837dc4bd85dac641b0f3cef27a47e5d53a54f2f3f5b2fcffa";

std::string line(const std::string& name, const std::string& hash, const std::string& more = {}) {
    return R"({"name":")" + name + R"(","sha256":")" + hash + '"' + more + "}\n";
}

std::string whyRefused(const std::string& text) {
    try {
        Tokens{text};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return {};
}

TEST(TheTokens, AreFoundByTheirSecretOnly) {
    const Tokens tokens("# ours\n\n" + line("lamps", kSecret) + line("doors", kOther));
    EXPECT_EQ(tokens.find("secret")->name, "lamps");
    EXPECT_EQ(tokens.find("other")->name, "doors");
    for (const char* secret : {"", "Secret", "secret ", "secre", "lamps", kSecret}) {
        EXPECT_EQ(tokens.find(secret), nullptr) << secret;
    }
}

TEST(TheTokens, HaveOnlyTheRightsOfTheirLine) {
    const Tokens tokens(line("none", kSecret) +
                        line("all", kOther,
                             R"(,"read":true,"announce":"/lamps/","administer":true,)"
                             R"("entries":3,"bytes":100)"));
    const auto none = tokens.find("secret");
    EXPECT_FALSE(none->mayRead || none->mayAdminister || none->mayAnnounce("/"));
    const auto all = tokens.find("other");
    EXPECT_TRUE(all->mayRead && all->mayAdminister);
    EXPECT_TRUE(all->mayAnnounce("/lamps/1?x"));
    EXPECT_FALSE(all->mayAnnounce("/lampshade"));
    EXPECT_FALSE(all->mayAnnounce("/lamps/%2e%2e/doors"));
    EXPECT_EQ(all->maxEntries, 3U);
    EXPECT_EQ(all->maxBytes, 100U);
}

TEST(TheTokens, ThatMayAnnounceEverywhereMayWithdrawAnEntryOfAnyPath) {
    const Tokens tokens(line("all", kSecret, R"(,"announce":"/")") +
                        line("lamps", kOther, R"(,"announce":"/lamps")"));
    EXPECT_TRUE(tokens.find("secret")->mayAnnounce("//a/../b"));
    EXPECT_FALSE(tokens.find("other")->mayAnnounce("/lamps//a"));
}

TEST(TheTokens, AreRefusedWithTheLineOfAMistake) {
    const std::string good = line("lamps", kSecret);
    for (const auto& [text, why] :
         {std::pair<std::string, std::string>{"x", "line 1: not a JSON object"},
          {good + R"({"sha256":"x"})", "line 2: \"name\" is missing"},
          {line("", kOther), "line 1: \"name\" must be"},
          {line("a b", kOther), "line 1: \"name\" must be"},
          {line("a\\u000a", kOther), "line 1: \"name\" must be"},
          {line(std::string(65, 'a'), kOther), "line 1: \"name\" must be"},
          {line("a", "secret"), "line 1: \"sha256\" must be 64"},
          {line("a", std::string(63, '0')), "line 1: \"sha256\" must be 64"},
          {line("a", std::string(62, '0') + "-1"), "line 1: \"sha256\" must be 64"},
          {line("a", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"),
           "line 1: \"sha256\" is the hash of an empty text: there was no token"},
          {line("a", kOther, R"(,"read":1)"), "line 1: \"read\" must be true or false"},
          {line("a", kOther, R"(,"announce":true)"), "line 1: \"announce\" must be a text"},
          {line("a", kOther, R"(,"announce":"lamps")"), "line 1: \"announce\" must be a path"},
          {line("a", kOther, R"(,"announce":"/a/../b")"), "line 1: \"announce\" must be a path"},
          {line("a", kOther, R"(,"announce":"/a?b=1")"), "line 1: \"announce\" must be a path"},
          {line("a", kOther, R"(,"announce":"/a;b=1")"), "line 1: \"announce\" must be a path"},
          {line("a", kOther, R"(,"announce":"/a%3bb")"), "line 1: \"announce\" must be a path"},
          {line("a", kOther, R"(,"entries":0)"), "line 1: \"entries\" must be"},
          {line("a", kOther, R"(,"bytes":-1)"), "line 1: \"bytes\" must be"},
          {line("a", kOther, R"(,"reed":true)"), "line 1: \"reed\" has no meaning"},
          {good + "\n" + line("lamps", kOther), "line 3: another token has the same name"},
          {good + line("doors", kSecret), "line 2: another token has the same hash"}}) {
        EXPECT_THAT(whyRefused(text), StartsWith(why)) << text;
    }
}

TEST(TheTokens, AreRefusedWithoutShowingTheContentOfTheFile) {
    for (const std::string& text :
         {std::string("hunter2"), line("a", "hunter2"), line("a", kOther, R"(,"read":"hunter2")"),
          line("hunter2 ", kOther), line("a", kOther, R"(,"announce":"hunter2")")}) {
        EXPECT_THAT(whyRefused(text), Not(HasSubstr("hunter2")));
        EXPECT_NE(whyRefused(text), "");
    }
}

TEST(TheTokens, AreAThousandAtMost) {
    std::string text;
    for (int i = 0; i < 1'001; ++i) {
        std::string hash = std::to_string(i);
        text += line("t" + hash, std::string(64 - hash.size(), 'a') + hash);
    }
    EXPECT_EQ(whyRefused(text), "line 1001: there are more than 1000 tokens");
}

}  // namespace
}  // namespace orvx::registry
