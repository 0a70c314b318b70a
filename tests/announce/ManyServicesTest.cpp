// One program that announces many services: its work is proportional to their number, and neither a
// signal nor the service manager's watchdog waits for that work. Entered by the test's thread and
// those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Notifications.h"
#include "Paths.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>

namespace orvx::announce {
namespace {

constexpr int kMany = ORVX_MANY_SERVICES;
constexpr auto kPatience = 60s;
/// A service manager that receives no "WATCHDOG=1" for this time kills the program.
constexpr auto kWatchdog = 10s;
/// The limit from the signal to the end, beside the time for one request of each service.
constexpr auto kEnd = 1s;

double inSeconds(steady_clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

class ManyServices : public AnnounceTest {
  protected:
    Words options(int count, std::uint16_t registryPort) const {
        json set = json::array();
        for (int i = 0; i < count; ++i) {
            set.push_back({{"name", "lamp" + std::to_string(i)}, {"port", 8000}});
        }
        return {"--registry",       urlOf(registryPort),
                "--from",           folder.write("set.json", set.dump()),
                "--status-file",    status,
                "--check-interval", "3600",
                "--retry-interval", "3600"};
    }

    /// Whether the first request of each service has ended.
    bool haveAllTried() const {
        const json state = json::parse(contentOf(status), nullptr, false);
        if (!state.is_object()) {
            return false;
        }
        const json& services = state.at("services");
        return std::all_of(services.begin(), services.end(), [](const json& one) {
            return one.at("state") == "announced" || one.contains("lastFailure");
        });
    }

    /// The processor time of the program from its start to its end.
    std::chrono::microseconds cost(int count, std::uint16_t registryPort) const {
        const auto before = processorTimeOfChildren();
        Announce announce(options(count, registryPort));
        const auto pause = [] { ::poll(nullptr, 0, 20); };
        waitFor([this] { return haveAllTried(); }, pause);
        announce.signal(SIGTERM);
        waitFor([&] { return hasEnded(announce); }, pause);
        announce.ended(0);
        std::filesystem::remove(status);
        return processorTimeOfChildren() - before;
    }

    /// The processor time for reading this many services, of which the last one is invalid.
    std::chrono::microseconds costOfReading(int count) const {
        json set = json::array();
        for (int i = 0; i < count; ++i) {
            set.push_back({{"name", "lamp" + std::to_string(i)}, {"port", 8000}});
        }
        set.push_back({{"name", "lamp"}});
        const auto before = processorTimeOfChildren();
        const auto result = Announce({"--registry", urlOf(refused.port()), "--from",
                                      folder.write("set.json", set.dump(1))})
                                .ended(125);
        EXPECT_THAT(result.errors, HasSubstr("set.json:" + std::to_string(4 * count + 2) +
                                             ":2: the service has no port"));
        return processorTimeOfChildren() - before;
    }

    static void waitFor(const std::function<bool()>& condition,
                        const std::function<void()>& meanwhile) {
        const auto deadline = steady_clock::now() + kPatience;
        while (!condition() && steady_clock::now() < deadline) {
            meanwhile();
        }
        EXPECT_TRUE(condition());
    }

    static bool hasEnded(const ChildProcess& process) {
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(process.pid()), &info, WEXITED | WNOHANG | WNOWAIT);
        return info.si_pid != 0;
    }

    static std::chrono::microseconds processorTimeOfChildren() {
        rusage usage{};
        ::getrusage(RUSAGE_CHILDREN, &usage);
        return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    }

    /// The number of the program's threads when this many services are announced.
    std::size_t threadsWith(int count) {
        Announce announce(options(count, registry.port()));
        awaitEntries(count);
        const std::filesystem::directory_iterator threads("/proc/" +
                                                          std::to_string(announce.pid()) + "/task");
        const auto number = std::distance(begin(threads), end(threads));
        announce.stopped(0);
        return static_cast<std::size_t>(number);
    }

    void awaitEntries(int count) const {
        waitFor([&] { return entries().size() == static_cast<std::size_t>(count); },
                [] { ::poll(nullptr, 0, 20); });
    }

    void expectCostInProportion(std::uint16_t registryPort) const {
        const auto few = cost(40, registryPort);
        const auto many = cost(400, registryPort);
        EXPECT_LE(many, 12 * few) << few.count() << " us for 40 services, " << many.count()
                                  << " us for 400";
    }

    /// Runs the program with a watchdog, and stops it when every service was tried. Limits the time
    /// between two notifications of the watchdog, and the time from the signal to the end. No line
    /// waits for a reader.
    void expectPromptness(std::uint16_t registryPort) const {
        const testing::Notifications told(folder.file("notify"));
        const auto interval = std::chrono::microseconds(kWatchdog).count();
        ChildProcess announce("/usr/bin/env",
                              Words{"NOTIFY_SOCKET=" + folder.file("notify"),
                                    "WATCHDOG_USEC=" + std::to_string(interval), "/bin/sh", "-c",
                                    "exec \"$0\" \"$@\" >/dev/null", paths::kAnnounceProgram} +
                                  options(kMany, registryPort));
        const auto begin = steady_clock::now();
        auto last = begin;
        steady_clock::duration longest{0};
        const auto listen = [&] {
            if (told.within(20ms).value_or("") == "WATCHDOG=1") {
                last = steady_clock::now();
            }
            longest = std::max(longest, steady_clock::now() - last);
        };
        waitFor([this] { return haveAllTried(); }, listen);
        const auto signalled = steady_clock::now();
        announce.signal(SIGTERM);
        waitFor([&] { return hasEnded(announce); }, listen);
        EXPECT_LT(inSeconds(steady_clock::now() - signalled), inSeconds(signalled - begin + kEnd));
        EXPECT_LE(inSeconds(longest), inSeconds(kWatchdog) / 2);
        EXPECT_EQ(exitCode(announce.wait()), 0);
    }

    const Folder folder;
    const std::string status = folder.file("status.json");
    const testing::RefusedPort refused;
};

TEST_F(ManyServices, CostProcessorTimeInProportionToTheirNumber) {
    expectCostInProportion(registry.port());
}

TEST_F(ManyServices, CostProcessorTimeInProportionToTheirNumberWithoutARegistry) {
    expectCostInProportion(refused.port());
}

TEST_F(ManyServices, AreReadInTimeInProportionToTheirNumber) {
    const auto few = costOfReading(2000);
    const auto many = costOfReading(16000);
    EXPECT_LE(many, 16 * few) << few.count() << " us for 2000, " << many.count() << " us for 16000";
}

TEST_F(ManyServices, HaveNoMoreThreadsThanOne) {
    EXPECT_EQ(threadsWith(300), threadsWith(1));
}

TEST_F(ManyServices, FitIntoTheUsualLimitOfDescriptors) {
    ChildProcess announce(
        "/bin/sh", Words{"-c", "ulimit -n 1024 && exec \"$0\" \"$@\"", paths::kAnnounceProgram} +
                       options(500, registry.port()));
    awaitEntries(500);
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(ManyServices, DelayNeitherTheEndNorTheWatchdog) {
    expectPromptness(registry.port());
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(ManyServices, DelayNeitherTheEndNorTheWatchdogWithoutARegistry) {
    expectPromptness(refused.port());
}

}  // namespace
}  // namespace orvx::announce
