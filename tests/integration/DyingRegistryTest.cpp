// A registry that fails during the withdrawal of all services. A server in front of it forwards
// some of the DELETEs and then fails in one of several ways. Threads: the test's, the client's
// three, the registry's and that of the server in front, which alone uses the counter; they share
// sockets only.
#include "IntegrationTest.h"
#include "RegistryProcess.h"

#include <csignal>
#include <map>

namespace orvx::serviceregistryclient {
namespace {

using std::chrono::steady_clock;
using testing::HostileServer;
using testing::Request;
using testing::Script;

constexpr int kServices = 10;
constexpr int kDeletesThatArrive = 4;

class ADyingRegistry : public IntegrationTest {
  protected:
    void registerAll(std::uint16_t port) {
        start();
        ASSERT_TRUE(
            client().registerServicesAtRegistry(at(port), services("lamp", kServices)).first);
    }

    /// Withdraws all services, which must fail. Returns the number of times that each outcome
    /// occurred.
    std::map<std::string, int> withdrawAll() {
        const auto [allWithdrawn, withdrawals] = client().unregisterAllServicesFromRegistry();
        EXPECT_FALSE(allWithdrawn);
        std::map<std::string, int> counts;
        for (const auto& [lamp, outcome] : withdrawals) {
            ++counts[text(outcome)];
        }
        return counts;
    }

    bool isBeyondTheLast(const Request& request) {
        return request.method == "DELETE" && ++deletes > kDeletesThatArrive;
    }

    int deletes = 0;
};

TEST_F(ADyingRegistry, ThatFallsSilentGivesAPartialResultAfterTheTimeOut) {
    HostileServer front;
    context.setSyncCallUnregisterTimeout(2s);
    front.onRequest([this](const Request& request) {
        return isBeyondTheLast(request) ? Script().silence()
                                        : Script(passOn(request, registry.port()));
    });
    registerAll(front.port());
    const auto begin = steady_clock::now();
    EXPECT_EQ(withdrawAll(), (std::map<std::string, int>{{"OK/NONE", kDeletesThatArrive}}));
    const auto duration = steady_clock::now() - begin;
    EXPECT_GE(duration, 2s);
    EXPECT_LT(duration, 5s);
    EXPECT_EQ(entries().size(), std::size_t{kServices - kDeletesThatArrive});
}

TEST_F(ADyingRegistry, ThatIsKilledGivesAWholeResultWithItsErrors) {
    registry::RegistryProcess program({"--port", "0"});
    const auto port = program.port();
    bool isAlive = true;
    HostileServer front;
    front.onRequest([&](const Request& request) {
        if (isBeyondTheLast(request) && isAlive) {
            isAlive = false;
            program.signal(SIGKILL);
            program.wait();
        }
        return isAlive ? Script(passOn(request, port)) : Script().reset();
    });
    registerAll(front.port());
    const auto begin = steady_clock::now();
    EXPECT_EQ(withdrawAll(), (std::map<std::string, int>{
                                 {"OK/NONE", kDeletesThatArrive},
                                 {"ERROR/SERVICE_REGISTRY_ERROR", kServices - kDeletesThatArrive},
                             }));
    EXPECT_LT(steady_clock::now() - begin, 10s);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
