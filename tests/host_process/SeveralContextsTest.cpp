// Several contexts in one process are independent. Threads: the test's, one for each of ten users,
// three for each context, the registries'.

#include "Descriptors.h"
#include "IntegrationTest.h"
#include "Process.h"

#include <nlohmann/json.hpp>

#include <thread>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using testing::openDescriptors;
using testing::threadNames;

/// A second context in addition to the fixture's. Both check without a pause.
class TwoContexts : public IntegrationTest {
  protected:
    TwoContexts() {
        other.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        other.setHeadTimeout(1min);
        other.setCheckInterval(0s);
        context.setCheckInterval(0s);
        other.init();
        start();
    }
    SyncOrvRegistrationResponse registerAtOther(std::uint16_t port, const std::string& name) {
        auto outcome =
            other.getServiceRegistryClient()->registerServiceAtRegistry(at(port), service(name));
        EXPECT_EQ(text(outcome.response), "OK/NONE");
        return outcome;
    }
    /// Expects that the other context still checks its entry, registers and withdraws.
    void expectOtherWorksAt(std::uint16_t port, std::size_t entry) {
        const auto checks = [&] { return entriesAt(port).at(entry).at("checks").get<int>(); };
        const int sofar = checks();
        EXPECT_TRUE(eventually([&] { return checks() > sofar + 1; }));
        EXPECT_EQ(text(registerAtOther(port, "bell").unregister()), "OK/NONE");
    }

    OrvServiceRegistryContext other;
};

TEST_F(TwoContexts, WorkAtTwoRegistriesAndOneEndsAlone) {
    const registry::RunningRegistry second;
    registered("lamp", registry.port());
    const auto door = registerAtOther(second.port(), "door");
    expectOtherWorksAt(second.port(), 0);
    context.deinit();
    expectOtherWorksAt(second.port(), 0);
    EXPECT_EQ(text(door.unregister()), "OK/NONE");
    EXPECT_EQ(entries().at(0).at("path"), "/lamp");
}

TEST_F(TwoContexts, WorkAtOneRegistryAndWithdrawOnlyWhatIsTheirs) {
    registered("lamp", registry.port());
    registerAtOther(registry.port(), "door");
    EXPECT_TRUE(client().unregisterAllServicesFromRegistry().first);
    EXPECT_EQ(entries().size(), 1U);
    expectOtherWorksAt(registry.port(), 0);
    context.deinit();
    expectOtherWorksAt(registry.port(), 0);
    EXPECT_TRUE(other.getServiceRegistryClient()->unregisterAllServicesFromRegistry().first);
    EXPECT_TRUE(entries().empty());
}

void liveInOneContext(std::uint16_t port, const std::string& name) {
    OrvServiceRegistryContext context;
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.init();
    const auto lamp = context.getServiceRegistryClient()->registerServiceAtRegistry(
        {"registry", "127.0.0.1", port}, service(name));
    EXPECT_EQ(text(lamp.response), "OK/NONE");
    EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
    context.deinit();
}

TEST(TenContexts, StartAndEndInTenThreadsAtOnce) {
    // The registry closes its side of the connections when it ends.
    const auto descriptorsBefore = openDescriptors();
    auto registry = std::make_unique<registry::RunningRegistry>();
    liveInOneContext(registry->port(), "first");
    const auto threadsBefore = threadNames().size();
    std::vector<std::thread> users;
    for (int user = 0; user < 10; ++user) {
        users.emplace_back([port = registry->port(), name = "lamp" + std::to_string(user)] {
            for (int round = 0; round < 5; ++round) {
                liveInOneContext(port, name);
            }
        });
    }
    for (auto& user : users) {
        user.join();
    }
    EXPECT_EQ(threadNames().size(), threadsBefore);
    EXPECT_TRUE(entriesAt(registry->port()).empty());
    registry.reset();
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
