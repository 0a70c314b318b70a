// The commands and the configurations of the page for production.
// Entered by the test's thread; the programs are processes. No lock.
#include "Folder.h"
#include "Paths.h"
#include "RawConnection.h"
#include "RegistryProcess.h"

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <regex>

namespace orvx::registry {
namespace {

using testing::contentOf;
using testing::Folder;
using ::testing::HasSubstr;

class ThePageForProduction : public ::testing::Test {
  protected:
    /// The first block in this language that contains the text, with its paths changed to the
    /// folder.
    std::string block(const std::string& language, const std::string& text) const {
        const std::string page = contentOf(paths::kProductionPage);
        const std::regex blocks("```" + language + "\n([^`]*)```");
        for (std::sregex_iterator i(page.begin(), page.end(), blocks), end; i != end; ++i) {
            if ((*i)[1].str().find(text) != std::string::npos) {
                return std::regex_replace(
                    (*i)[1].str(),
                    std::regex("/etc/orvx-registry|/var/lib/orvx-registry|/var/backups"),
                    folder.path());
            }
        }
        throw std::runtime_error("the page has no " + text);
    }
    /// Runs a block in the folder. The test starts and stops the registry.
    void run(const std::string& script) const {
        const auto result =
            ChildProcess("/bin/sh",
                         {"-ec", "cd '" + folder.path() + "'; systemctl() { :; }\n" +
                                     std::regex_replace(script, std::regex("-o [a-z-]+ "), "")})
                .wait();
        EXPECT_EQ(WEXITSTATUS(result.status), 0) << script << result.errors;
    }
    std::unique_ptr<RegistryProcess> start(std::vector<std::string> options) const {
        options.insert(options.end(), {"--port", "0"});
        return std::make_unique<RegistryProcess>(options);
    }
    static void stop(const std::unique_ptr<RegistryProcess>& registry) {
        registry->signal(SIGTERM);
        EXPECT_EQ(registry->wait().status, 0);
    }

    const Folder folder;
};

TEST_F(ThePageForProduction, MakesNoTokenWithoutTheProgramForIt) {
    run("set +e\nopenssl() { return 127; }\n" + block("sh", "token lamps") + "\n! test -e '" +
        folder.file("tokens") + "'");
}

TEST_F(ThePageForProduction, MakesTokensThatTheRegistryTakes) {
    run(block("sh", "token lamps"));
    const auto registry = start({"--tokens", folder.file("tokens")});
    const auto put = [&](const std::string& path) {
        std::string token = contentOf(folder.file("lamps.token"));
        token.pop_back();
        const std::string request = "PUT " + path + " HTTP/1.1\r\nAuthorization: Bearer " + token +
                                    "\r\nContent-Length: 2\r\n\r\n{}";
        return RawConnection(registry->port()).ask(request).result_int();
    };
    EXPECT_EQ(put("/lamps/1"), 201U);
    EXPECT_EQ(put("/bells/1"), 403U);
    EXPECT_EQ(WEXITSTATUS(RegistryProcess({"list", "--registry",
                                           "http://127.0.0.1:" + std::to_string(registry->port()),
                                           "--token-file", folder.file("reader.token")})
                              .wait()
                              .status),
              0);
}

TEST_F(ThePageForProduction, RestoresEntriesWithTheirUuids) {
    const std::vector<std::string> options{"--store", folder.file("entries")};
    auto registry = start(options);
    const auto entries = [&] {
        return RawConnection(registry->port()).ask(makeRequest("GET", "/")).body();
    };
    RawConnection(registry->port()).ask(makeRequest("PUT", "/lamp", R"({"name":"lamp"})"));
    const std::string before = entries();
    EXPECT_THAT(before, HasSubstr("lamp"));
    stop(registry);
    run(block("sh", ".backup"));
    registry = start(options);
    RawConnection(registry->port()).ask(makeRequest("PUT", "/bell", "{}"));
    stop(registry);
    run(block("sh", "install"));
    registry = start(options);
    EXPECT_EQ(entries(), before);
}

TEST_F(ThePageForProduction, HasAConfigurationThatHaproxyTakes) {
    const auto file = folder.write("haproxy.cfg", block("haproxy", "backend replicas"));
    const auto result = ChildProcess(ORVX_HAPROXY, {"-c", "-f", file}).wait();
    EXPECT_EQ(WEXITSTATUS(result.status), 0) << result.errors;
    EXPECT_EQ(result.errors, "");
}

}  // namespace
}  // namespace orvx::registry
