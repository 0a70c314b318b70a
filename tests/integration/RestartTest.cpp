// A registry that restarts without its entries, and the number of the client's threads meanwhile.
// Threads: the test's and the client's three; the registry is a process.
#include "IntegrationTest.h"
#include "RegistryProcess.h"
#include "RunningThreads.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using utility::test::threadsNamed;

// Small enough for a slow machine to check all services within the interval.
constexpr int kCount = 50;

/// A registry program with a port that no other process gets while it is not running.
class RestartableRegistry {
  public:
    RestartableRegistry() : reservation_(testing::bindLoopback()), port_(portOf(reservation_)) {
        start();
    }

    std::uint16_t port() const { return port_; }
    void kill() {
        program_->signal(SIGKILL);
        program_->wait();
    }
    void start() {
        program_.emplace(std::vector<std::string>{"--port", std::to_string(port_)});
        program_->port();
    }

  private:
    const testing::Socket reservation_;
    const std::uint16_t port_;
    std::optional<registry::RegistryProcess> program_;
};

using ARestartedRegistry = IntegrationTest;
using TheThreads = IntegrationTest;

std::set<std::string> pathsAt(std::uint16_t port) {
    std::set<std::string> paths;
    for (const json& entry : entriesAt(port)) {
        paths.insert(entry.at("path"));
    }
    return paths;
}

TEST_F(ARestartedRegistry, GetsAllServicesBackByThemselves) {
    context.setCheckInterval(1s);
    start();
    RestartableRegistry restartable;
    ASSERT_TRUE(client()
                    .registerServicesAtRegistry(at(restartable.port()), services("lamp", kCount))
                    .first);
    const auto paths = pathsAt(restartable.port());
    EXPECT_EQ(paths.size(), std::size_t{kCount});
    restartable.kill();
    restartable.start();
    EXPECT_EQ(notifications.await(3 * kCount).size(), std::size_t{3 * kCount});
    EXPECT_EQ(pathsAt(restartable.port()), paths);
    EXPECT_TRUE(client().unregisterAllServicesFromRegistry().first);
    EXPECT_TRUE(pathsAt(restartable.port()).empty());
}

TEST_F(ARestartedRegistry, GetsAServiceBackAfterAnOutage) {
    context.setCheckInterval(0s);
    start();
    RestartableRegistry restartable;
    const auto withdraw = registered("lamp", restartable.port());
    const auto before = entriesAt(restartable.port()).at(0);
    restartable.kill();
    restartable.start();
    EXPECT_THAT(notifications.await(3), ElementsAre(true, false, true));
    const auto after = entriesAt(restartable.port()).at(0);
    EXPECT_EQ(after.at("service"), before.at("service"));
    EXPECT_NE(after.at("uuid"), before.at("uuid"));
    EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
}

TEST_F(ARestartedRegistry, GetsAServiceThatWasAnnouncedWhileItWasAway) {
    context.setRetryInterval(1ms);
    start();
    RestartableRegistry restartable;
    restartable.kill();
    client().registerServiceAtRegistry(at(restartable.port()), service("lamp"), record());
    restartable.start();
    EXPECT_THAT(outcomes.await(1), ElementsAre("OK/NONE"));
    EXPECT_EQ(entriesAt(restartable.port()).size(), 1U);
}

TEST_F(TheThreads, AreThreeForOneServiceAndForManyAndNoneAfterwards) {
    const auto areThere = [](std::size_t count) {
        return threadsNamed("ORVX_SRCBExec") == count && threadsNamed("ORVX_SRRExec") == count &&
               threadsNamed("ORVX_HttpIO") == count;
    };
    EXPECT_TRUE(areThere(0));
    start();
    registered("lamp", registry.port());
    EXPECT_TRUE(areThere(1));
    const auto withOneService = testing::runningThreads().size();
    ASSERT_TRUE(
        client().registerServicesAtRegistry(at(registry.port()), services("bell", 200)).first);
    EXPECT_TRUE(areThere(1));
    EXPECT_EQ(testing::runningThreads().size(), withOneService);
    context.deinit();
    EXPECT_TRUE(areThere(0));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
