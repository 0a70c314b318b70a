// Handles and removers that outlive their client. The address sanitizer detects a use of the freed
// client.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::IsEmpty;

class HandlesAfterTheClient : public ClientTest {
  protected:
    void expectNothingOf(const std::function<void()>& call) {
        context.deinit();
        takeOutcomes();
        log->takeLines();
        const std::size_t requests = world.requestsToTake();
        call();
        EXPECT_EQ(world.requestsToTake(), requests);
        start();
        world.settle();
        EXPECT_THAT(takeOutcomes(), IsEmpty());
        EXPECT_THAT(log->takeLines(), IsEmpty());
    }
    void expectNothingOf(const Handle& handle) {
        expectNothingOf([&] { handle(record("withdrawal")); });
    }
};

TEST_F(HandlesAfterTheClient, WithdrawNothing) {
    start();
    expectNothingOf(registered("echo", "abc"));
}

TEST_F(HandlesAfterTheClient, DoNotReachTheNextClientOfTheContext) {
    start();
    const Handle handle = registered("echo", "abc");
    context.deinit();
    start();
    registered("echo", "def");
    handle(record("withdrawal"));
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(registrationIds(), ::testing::ElementsAre(1));
}

TEST_F(HandlesAfterTheClient, OfServicesThatWereRefusedSayNothing) {
    start();
    expectNothingOf(registerService(""));
    expectNothingOf(registerService("\xff"));
    client().deinit();
    expectNothingOf(registerService("echo"));
}

TEST_F(HandlesAfterTheClient, OfASetDoNothing) {
    start();
    auto handles = client().registerServicesAtRegistry(registry, {service("echo")}, {});
    expectNothingOf(handles.begin()->second);
}

TEST_F(HandlesAfterTheClient, RemoveNoListener) {
    start();
    const auto remove = client().addServiceRegisterStatusListener(listen());
    expectNothingOf(remove);
    client().addServiceRegisterStatusListener(listen());
    remove();
    registered("echo", "abc");
    EXPECT_THAT(takeNotifications(), ::testing::SizeIs(1));
}

TEST_F(HandlesAfterTheClient, SeeItGoneWhileItIsBeingDestroyed) {
    start();
    const Handle handle = registered("echo", "abc");
    // A waiting callback is destroyed with the client.
    bool isDestroyed = false;
    std::shared_ptr<void> atItsEnd(nullptr, [&](void*) {
        handle(record("withdrawal"));
        isDestroyed = true;
    });
    client().registerServiceAtRegistry(
        registry, service("time"), [kept = std::move(atItsEnd)](const OrvRegistrationResponse&) {});
    context.deinit();
    EXPECT_TRUE(isDestroyed);
    expectNothingOf([] {});
}

}  // namespace
}  // namespace orvx::serviceregistryclient
