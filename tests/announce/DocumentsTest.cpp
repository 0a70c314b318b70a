// The manual page, the completion and the how-to agree with the program.
// Entered by the test's thread and the registry's; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

#include <regex>
#include <set>

namespace orvx::announce {
namespace {

using TheManualPage = AnnounceTest;
using TheCompletion = AnnounceTest;
using TheHowTo = AnnounceTest;

const std::string kManualPage = std::string(paths::kAnnounceSources) + "/orvx-announce.1";

std::set<std::string> optionsOfTheProgram() {
    const std::string help = Announce({"--help"}).ended(0).output;
    const std::regex option("\n  (?:-h, *)?(--[-a-z]+)");
    std::set<std::string> options;
    for (std::sregex_iterator i(help.begin(), help.end(), option), end; i != end; ++i) {
        options.insert((*i)[1]);
    }
    return options;
}

/// The completions that are offered for the last word.
std::set<std::string> completions(const std::string& line) {
    const std::string script = R"(
        source "$0"
        COMP_WORDS=("$@")
        COMP_CWORD=$(($# - 1))
        _orvx_announce
        printf '%s\n' "${COMPREPLY[@]}")";
    Words arguments{"bash", "-c", script,
                    std::string(paths::kAnnounceSources) + "/orvx-announce.bash-completion",
                    "orvx-announce"};
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        arguments.push_back(word == "''" ? "" : word);
    }
    const auto result = ChildProcess("/usr/bin/env", arguments).wait();
    EXPECT_THAT(result.errors, IsEmpty());
    std::istringstream output(result.output);
    return {std::istream_iterator<std::string>(output), {}};
}

TEST_F(TheManualPage, IsWellFormed) {
    const auto result =
        ChildProcess("/usr/bin/env", {"mandoc", "-T", "lint", "-W", "warning", kManualPage}).wait();
    EXPECT_EQ(exitCode(result), 0) << result.output << result.errors;
}

TEST_F(TheManualPage, NamesEveryOptionAndExitStatus) {
    const std::string page = contentOf(kManualPage);
    for (const std::string& option : optionsOfTheProgram()) {
        EXPECT_THAT(page, HasSubstr("Fl " + option.substr(1))) << option;
    }
    const std::string help = Announce({"--help"}).ended(0).output;
    const std::regex variable("ORVX_[A-Z_]+");
    for (std::sregex_iterator i(help.begin(), help.end(), variable), end; i != end; ++i) {
        EXPECT_THAT(page, HasSubstr("Ev " + (*i)[0].str()));
    }
    for (const char* status : {"0", "1", "123", "124", "125", "126", "127"}) {
        EXPECT_THAT(page, HasSubstr(std::string(".It ") + status + "\n"));
    }
}

TEST_F(TheCompletion, OffersEveryOption) {
    auto offered = completions("''");
    EXPECT_EQ(offered.erase("--"), 1U);
    EXPECT_EQ(offered, optionsOfTheProgram());
    EXPECT_EQ(completions("--status"), std::set<std::string>{"--status-file"});
}

TEST_F(TheCompletion, OffersTheValuesOfAnOption) {
    const Folder folder;
    const auto file = folder.write("services.json", "[]");
    EXPECT_EQ(completions("--from " + folder.file("ser")), std::set<std::string>{file});
    EXPECT_EQ(completions("--ready ''"), (std::set<std::string>{"none", "tcp"}));
    EXPECT_THAT(completions("--name ''"), IsEmpty());
}

TEST_F(TheCompletion, OffersCommandsAfterTwoDashesAndThenFiles) {
    const Folder folder;
    const auto file = folder.write("input", "");
    EXPECT_EQ(completions("--json -- printen").count("printenv"), 1U);
    EXPECT_EQ(completions("--json -- cat " + folder.file("in")), std::set<std::string>{file});
}

TEST_F(TheHowTo, HasCommandsThatAnnounceAndWithdraw) {
    const testing::RefusedPort port;
    const std::string text = contentOf(paths::kHowto);
    const std::regex block("```sh\n([^`]*)```");
    int count = 0;
    for (std::sregex_iterator i(text.begin(), text.end(), block), end; i != end; ++i, ++count) {
        const Folder folder;
        std::string script = "\n" + (*i)[1].str();
        script =
            std::regex_replace(script, std::regex("\\b8500\\b"), std::to_string(registry.port()));
        script = std::regex_replace(script, std::regex("\\b8080\\b"), std::to_string(port.port()));
        script = std::regex_replace(script, std::regex("\norvx-announce"),
                                    "\nexec " + std::string(paths::kAnnounceProgram));
        ChildProcess process("/usr/bin/env", {"--chdir", folder.file(""), "bash", "-c", script});
        EXPECT_TRUE(eventually([this] { return !entries().empty(); })) << script;
        process.signal(SIGTERM);
        const auto result = process.wait();
        EXPECT_THAT(exitCode(result), ::testing::AnyOf(0, 143)) << result.output << result.errors;
        EXPECT_TRUE(entries().empty());
    }
    EXPECT_EQ(count, 5);
}

}  // namespace
}  // namespace orvx::announce
