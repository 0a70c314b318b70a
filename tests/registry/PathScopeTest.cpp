// Tests which paths are within a scope, and which are refused because they have two meanings.
// Everything runs on the test's thread.
// There is no lock.

#include "PathScope.h"

#include <gmock/gmock.h>

#include <random>
#include <string>

namespace orvx::registry {
namespace {

using ::testing::Optional;

TEST(APath, IsDecodedAndHasNeitherAQueryNorASlashAtItsEnd) {
    EXPECT_THAT(plainPath("/"), Optional(std::string()));
    EXPECT_THAT(plainPath("/lamps"), Optional(std::string("/lamps")));
    EXPECT_THAT(plainPath("/lamps/"), Optional(std::string("/lamps")));
    EXPECT_THAT(plainPath("/la%6Dps/a%20b?x=/../%2f"), Optional(std::string("/lamps/a b")));
    EXPECT_THAT(plainPath("/k%C3%BCche/..."), Optional(std::string("/küche/...")));
}

TEST(APath, IsRefusedWhenItHasTwoMeanings) {
    for (const char* target : {"",
                               "lamps",
                               "*",
                               "http://registry/lamps",
                               "//",
                               "//lamps",
                               "/lamps//1",
                               "/lamps//",
                               "/.",
                               "/..",
                               "/lamps/../doors",
                               "/lamps/./1",
                               "/lamps/..",
                               "/lamps/%2e%2e/doors",
                               "/lamps/.%2E/doors",
                               "/lamps/%2e/1",
                               "/lamps%2fdoors",
                               "/lamps%2F..%2Fdoors",
                               "/lamps%252fdoors",
                               "/lamps/%252e%252e/doors",
                               "/lamps\\..\\doors",
                               "/lamps%5c..",
                               "/lamps/..;/doors",
                               "/lamps/;x/1",
                               "/lamps/.;",
                               "/lamps/%2e%2e%3bx/doors",
                               "/lamps%00",
                               "/lamps%0a",
                               "/lamps%7f",
                               "/lamps\x01",
                               "/lamps%",
                               "/lamps%2",
                               "/lamps%zz",
                               "/lamps%+1",
                               "/lamps%-1",
                               "/lamps%0x1",
                               "/lamps/\xc0\xaf..",
                               "/lamps/%c0%af",
                               "/lamps/%c0%ae%c0%ae/x",
                               "/\xff",
                               "/lamps?/../x/%"}) {
        const bool isQuery = std::string(target).find('?') != std::string::npos;
        EXPECT_EQ(plainPath(target).has_value(), isQuery) << target;
    }
}

TEST(AScope, IsAPathWithoutAQueryAndASemicolon) {
    EXPECT_THAT(scopeOf("/"), Optional(std::string()));
    EXPECT_THAT(scopeOf("/la%6Dps/"), Optional(std::string("/lamps")));
    for (const char* text : {"", "lamps", "/lamps/..", "/lamps?", "/lamps;", "/lamps;v=1/a",
                             "/lamps%3bx", "/a/lamps;x"}) {
        EXPECT_EQ(scopeOf(text), std::nullopt) << text;
    }
}

TEST(APath, IsWithinAScopeFromASlashToTheNext) {
    EXPECT_TRUE(isWithin("/a", "/a"));
    EXPECT_TRUE(isWithin("/a/b", "/a"));
    EXPECT_FALSE(isWithin("/ab", "/a"));
    EXPECT_FALSE(isWithin("/", "/a"));
    EXPECT_FALSE(isWithin("", "/a"));
    EXPECT_FALSE(isWithin("/b/a", "/a"));
    EXPECT_FALSE(isWithin("/a", "/a/b"));
    EXPECT_FALSE(isWithin("/A", "/a"));
    EXPECT_TRUE(isWithin("/a", ""));
    EXPECT_TRUE(isWithin("", ""));
}

// Returns the path that the most lenient reader would see: it decodes repeatedly, treats a
// backslash as a slash, and resolves dots.
std::string readCarelessly(std::string path) {
    for (int round = 0; round < 3; ++round) {
        std::string decoded;
        for (std::size_t i = 0; i < path.size(); ++i) {
            const std::string digits = path.substr(i + 1, 2);
            if (path[i] == '%' && digits.size() == 2 &&
                digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
                decoded += static_cast<char>(std::stoi(digits, nullptr, 16));
                i += 2;
            } else {
                decoded += path[i] == '\\' ? '/' : path[i];
            }
        }
        path = decoded;
    }
    std::string resolved;
    for (std::size_t at = 0; at < path.size();) {
        const auto end = std::min(path.find('/', at), path.size());
        const std::string segment = path.substr(at, std::min(end, path.find(';', at)) - at);
        if (segment == "..") {
            resolved.erase(std::min(resolved.rfind('/'), resolved.size()));
        } else if (!segment.empty() && segment != ".") {
            resolved += '/' + path.substr(at, end - at);
        }
        at = end + 1;
    }
    return resolved;
}

TEST(APath, WithinAScopeIsWithinItForAnyReader) {
    static constexpr const char* kParts[] = {"/",   "a",   "b",   ".",   "..",   "%2f",  "%2e",
                                             "%5c", "%25", "25",  "2f",  "2e",   "\\",   ";",
                                             "%",   "%3b", "%61", "/a/", "/a/.", "%252e"};
    std::minstd_rand random(1);
    int within = 0;
    for (int i = 0; i < 200'000; ++i) {
        std::string target = "/a";
        for (auto parts = random() % 7; parts > 0; --parts) {
            target += kParts[random() % std::size(kParts)];
        }
        const auto path = plainPath(target);
        if (path && isWithin(*path, "/a")) {
            ++within;
            ASSERT_TRUE(isWithin(readCarelessly(target), "/a")) << target;
        }
    }
    EXPECT_GT(within, 1'000);
}

}  // namespace
}  // namespace orvx::registry
