// The symbols that the shared library exports to its process and imports from it. One thread; no
// lock.

#include "Paths.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace orvx::testing {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

std::string outputOf(const std::string& command) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(command.c_str(), "r"),
                                                               ::pclose);
    std::string output;
    for (int c = std::fgetc(pipe.get()); c != EOF; c = std::fgetc(pipe.get())) {
        output += static_cast<char>(c);
    }
    return output;
}

/// The text that the pattern's group matches, for each match in the output.
std::vector<std::string> all(const std::string& pattern, const std::string& command) {
    const std::string output = outputOf(command);
    const std::regex regex(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator it(output.begin(), output.end(), regex), end; it != end; ++it) {
        found.push_back((*it)[1]);
    }
    return found;
}

TEST(TheSharedLibrary, ShowsOnlyNamesOfItsOwn) {
    const auto names = all("[0-9a-f]+ [A-Za-z] ([^\n]+)\n",
                           ORVX_NM " -D --defined-only " + std::string(paths::kSharedLibrary));
    EXPECT_THAT(names,
                Contains("_ZN4orvx21serviceregistryclient25OrvServiceRegistryContext4initEv"));
    EXPECT_THAT(names, Not(Contains(HasSubstr("24OrvServiceRegistryClient"))))
        << "no installed header declares that class";
    EXPECT_THAT(names,
                Not(Contains(AnyOf(HasSubstr("12WorkerThread"), HasSubstr("11HealthCheck")))))
        << "internal headers of the framework export nothing";
    EXPECT_THAT(names, Each(MatchesRegex("_Z(T[VTIS]|T[hv][n0-9_]+)?NK?4orvx.*")));
}

// The console logger uses libfmt. A sanitizer adds its own library.
TEST(TheSharedLibrary, NeedsOnlyTheSystemOpensslAndLibfmt) {
    const auto needed = all("Shared library: \\[lib([^\n]*)\\.so[^\n]*\\]\n",
                            ORVX_READELF " -d " + std::string(paths::kSharedLibrary));
    EXPECT_THAT(needed, Contains("ssl"));
    EXPECT_THAT(needed, Each(MatchesRegex("c|m|stdc\\+\\+|gcc_s|ssl|crypto|fmt|[a-z]+san")));
}

// The program that links the library may use another version of Boost.
TEST(TheStaticLibrary, HasNoNameOfBoosts) {
    const auto names =
        all("[0-9a-f]+ [A-Za-z] ([^\n]+)\n", ORVX_NM " " + std::string(paths::kStaticLibrary));
    EXPECT_THAT(names, Contains(HasSubstr("10orvx_boost4asio")));
    EXPECT_THAT(names, Each(Not(AnyOf(HasSubstr("5boost"), StartsWith("boost_")))));
}

TEST(ThePlugin, HasNoSymbolThatKeepsItLoaded) {
    EXPECT_THAT(all("[0-9a-f]+ u ([^\n]+)\n", ORVX_NM " -C -D " + std::string(paths::kPlugin)),
                IsEmpty());
}

}  // namespace
}  // namespace orvx::testing
