// The example of a container: runs its commands as process 1 of a new process namespace. The tests
// do not prove that the images can be built. Entered by the test's thread and the registry's; the
// programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

namespace orvx::announce {
namespace {

class TheContainer : public AnnounceTest {
  protected:
    /// The arguments of each instruction with this name; continued lines are joined.
    static Words instructions(const std::string& name) {
        const std::string text = std::regex_replace(
            contentOf(std::string(paths::kAnnounceSources) + "/container/Dockerfile"),
            std::regex("\\\\\n"), " ");
        Words found;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(name + " ", 0) == 0) {
                found.push_back(line.substr(name.size() + 1));
            }
        }
        return found;
    }
    /// The only instruction with this name, with the files and ports of this test.
    std::string instruction(const std::string& name) const {
        const Words all = instructions(name);
        EXPECT_EQ(all.size(), 1U) << name;
        std::string text = all.at(0);
        text = std::regex_replace(text, std::regex("/run/orvx-announce.json"), status);
        text = std::regex_replace(text, std::regex("\\b8080\\b"), std::to_string(port.port()));
        return std::regex_replace(text, std::regex("\"orvx-announce\""),
                                  "\"" + std::string(paths::kAnnounceProgram) + "\"");
    }
    Words environment() const {
        std::istringstream stream(instruction("ENV"));
        Words words;
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
        return words;
    }
    /// Runs the container's process 1 with that command. Inside a chroot, root may have no user
    /// namespace and needs none, and "/" may be no mount point whose propagation can be changed.
    std::unique_ptr<ChildProcess> run(const Words& command) const {
        const Words entrypoint = json::parse(instruction("ENTRYPOINT"));
        const Words asRoot = ::geteuid() == 0 ? Words{} : Words{"--map-root-user"};
        return std::make_unique<ChildProcess>(
            "/usr/bin/env", environment() + Words{"ORVX_REGISTRY=" + urlOf(registry.port())} +
                                Words{"unshare", "--propagation", "unchanged"} + asRoot +
                                Words{"--pid", "--fork", "--mount-proc", "--kill-child"} +
                                entrypoint + command);
    }
    /// The process id of the container's process 1, as seen from outside.
    static pid_t firstProcess(const ChildProcess& container) {
        const std::string pid = std::to_string(container.pid());
        return std::stoi(contentOf("/proc/" + pid + "/task/" + pid + "/children"));
    }
    int checkHealth() const {
        const std::string check = instruction("HEALTHCHECK");
        const auto begin = check.find("CMD ") + 4;
        return exitCode(ChildProcess("/bin/sh", {"-c", check.substr(begin)}).wait());
    }

    const Folder folder;
    const std::string status = folder.file("status.json");
    const testing::RefusedPort port;
};

TEST_F(TheContainer, AnnouncesItsCommandIsHealthyAndStopsWithinItsGracePeriod) {
    const auto container = run(json::parse(instruction("CMD")));
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    EXPECT_TRUE(eventually([this] { return checkHealth() == 0; }));
    const auto begin = steady_clock::now();
    ::kill(firstProcess(*container), SIGTERM);
    container->wait();
    EXPECT_LT(steady_clock::now() - begin, 10s);
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_NE(checkHealth(), 0);
}

TEST_F(TheContainer, WaitsForTheProcessesThatAreLeftToIt) {
    const auto container = run({"/bin/sh", "-c",
                                "(sh -c 'sleep 0.1; exit 3' &); exec python3 -m http.server " +
                                    std::to_string(port.port())});
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    const pid_t first = firstProcess(*container);
    const std::string children =
        "/proc/" + std::to_string(first) + "/task/" + std::to_string(first) + "/children";
    EXPECT_TRUE(eventually([&] {
        std::istringstream pids(contentOf(children));
        return std::distance(std::istream_iterator<int>(pids), {}) == 1;
    }));
    ::kill(first, SIGTERM);
    container->wait();
}

TEST_F(TheContainer, IsBuiltByCommandsThatAShellUnderstands) {
    const Words commands = instructions("RUN");
    EXPECT_EQ(commands.size(), 3U);
    for (const std::string& command : commands) {
        const auto result = ChildProcess("/bin/sh", {"-n", "-c", command}).wait();
        EXPECT_EQ(exitCode(result), 0) << command << result.errors;
    }
    EXPECT_EQ(instructions("FROM").size(), 2U);
}

}  // namespace
}  // namespace orvx::announce
