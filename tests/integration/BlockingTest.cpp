// The blocking forms with real callers that wait, and concurrent calls. Threads: the test's and
// those that it makes, the client's three, the registry's, and that of the server in front of it;
// they share sockets and journals.
#include "IntegrationTest.h"

#include <functional>
#include <future>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using testing::HostileServer;
using testing::Request;
using testing::Script;

class ABlockingCall : public IntegrationTest {
  protected:
    /// Puts a server in front of the registry that holds back the answers to a method until the
    /// test releases the method's name.
    void holdBack(const std::string& method) {
        front.onRequest([this, method](const Request& request) {
            const std::string answer = passOn(request, registry.port());
            return request.method == method ? Script().waitForRelease(method).send(answer)
                                            : Script(answer);
        });
    }

    HostileServer front;
};

using ManyCallers = IntegrationTest;
using ACallback = IntegrationTest;
using AWithdrawal = ABlockingCall;

/// Calls `work` with 0 to 7, each on a thread of its own.
void onEightThreads(const std::function<void(int)>& work) {
    std::vector<std::future<void>> ends;
    for (int i = 0; i < 8; ++i) {
        ends.push_back(std::async(std::launch::async, work, i));
    }
    for (auto& end : ends) {
        end.get();
    }
}

TEST_F(ABlockingCall, ReturnsWhenTheRegistryHasTheEntryAndWhenItHasItNoLonger) {
    start();
    const auto lamp = client().registerServiceAtRegistry(at(registry.port()), service("lamp"));
    EXPECT_EQ(text(lamp.response), "OK/NONE");
    EXPECT_EQ(entries().size(), 1U);
    EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
    EXPECT_TRUE(entries().empty());
}

TEST_F(ABlockingCall, ReturnsWithTheErrorWhenTheRegistryCannotBeReached) {
    context.setInitialMaxRetryCount(2);
    context.setRetryInterval(1ms);
    start();
    const testing::RefusedPort refused;
    const auto lamp = client().registerServiceAtRegistry(at(refused.port()), service("lamp"));
    EXPECT_EQ(text(lamp.response), "ERROR/SERVICE_REGISTRY_ERROR");
    EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
}

TEST_F(ManyCallers, RegisterAndWithdrawAtOnce) {
    start();
    std::vector<std::vector<SyncOrvRegistrationResponse>> results(8);
    onEightThreads([&](int caller) {
        for (int i = 0; i < 20; ++i) {
            const auto name = "lamp" + std::to_string(caller) + "-" + std::to_string(i);
            results[static_cast<std::size_t>(caller)].push_back(
                client().registerServiceAtRegistry(at(registry.port()), service(name)));
        }
    });
    EXPECT_EQ(entries().size(), 160U);
    onEightThreads([&](int caller) {
        for (const auto& result : results[static_cast<std::size_t>(caller)]) {
            EXPECT_EQ(text(result.response), "OK/NONE");
            EXPECT_EQ(text(result.unregister()), "OK/NONE");
        }
    });
    EXPECT_TRUE(entries().empty());
    EXPECT_EQ(notifications.await(320).size(), 320U);
}

TEST_F(ACallback, MayRegisterAndWithdraw) {
    start();
    IOrvServiceRegistryClient::UnregisterHandle withdrawBell;
    const auto registerBell = [&](const auto& callback) {
        withdrawBell =
            client().registerServiceAtRegistry(at(registry.port()), service("bell"), callback);
    };
    EXPECT_EQ(outcomeOf([&](const auto& callback) {
                  client().registerServiceAtRegistry(
                      at(registry.port()), service("lamp"),
                      [&, callback](const auto& /*outcome*/) { registerBell(callback); });
              }),
              "OK/NONE");
    EXPECT_EQ(entries().size(), 2U);
    EXPECT_EQ(outcomeOf([&](const auto& callback) {
                  withdrawBell([&, callback](const auto& /*outcome*/) { registerBell(callback); });
              }),
              "OK/NONE");
    EXPECT_EQ(entries().size(), 2U);
}

TEST_F(AWithdrawal, ThatIsNotAnsweredInTimeTakesPlaceAllTheSame) {
    holdBack("DELETE");
    context.setSyncCallUnregisterTimeout(50ms);
    start();
    const auto lamp = client().registerServiceAtRegistry(at(front.port()), service("lamp"));
    EXPECT_EQ(text(lamp.unregister()), "ERROR/TIMEOUT");
    EXPECT_THAT(notifications.notes(), ElementsAre(true));
    front.release("DELETE");
    EXPECT_THAT(notifications.await(2), ElementsAre(true, false));
    EXPECT_TRUE(entries().empty());
}

TEST_F(AWithdrawal, MayTimeOutJustWhenItsAnswerArrives) {
    context.setSyncCallUnregisterTimeout(1ms);
    start();
    for (int i = 0; i < 200; ++i) {
        const auto lamp = client().registerServiceAtRegistry(at(registry.port()),
                                                             service("lamp" + std::to_string(i)));
        EXPECT_THAT(text(lamp.unregister()), AnyOf("OK/NONE", "ERROR/TIMEOUT"));
    }
    EXPECT_TRUE(eventually([&] { return entries().empty(); }));
    EXPECT_EQ(notifications.await(400).size(), 400U);
    EXPECT_EQ(outcomeOf(registered("bell", registry.port())), "OK/NONE");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
