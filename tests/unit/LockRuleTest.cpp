// User code is neither called, copied nor destroyed while the client's lock is held. The probes
// fail the test when they are.
#include "ClientTest.h"
#include "LockProbe.h"

namespace orvx::serviceregistryclient {
namespace {

class LockRule : public ClientTest {
  protected:
    /// A callback and listener that checks the lock when it is called, copied or destroyed.
    LockProbe probe() { return LockProbe(client(), count); }
    Handle registerProbed(const std::string& name) {
        return client().registerServiceAtRegistry(registry, service(name), probe());
    }
    /// All probes were destroyed, and they were called this often.
    void expectCalls(int calls) {
        world.settle();
        EXPECT_EQ(count->called, calls);
        EXPECT_EQ(count.use_count(), 1);
    }

    const std::shared_ptr<LockProbe::Count> count = std::make_shared<LockProbe::Count>();
};

TEST_F(LockRule, HoldsForARegistrationThatSucceeds) {
    start();
    registerProbed("echo");
    next("PUT").answer(201, location("/abc"));
    expectCalls(1);
}

TEST_F(LockRule, HoldsForARegistrationThatFails) {
    start();
    registerProbed("echo");
    next("PUT").answer(400);
    expectCalls(1);
}

TEST_F(LockRule, HoldsForARegistrationThatIsRefused) {
    start();
    registerProbed("");
    const auto unwritable = service("echo");
    unwritable->setDescription("\xff");
    client().registerServiceAtRegistry(registry, unwritable, probe())(probe());
    client().registerServiceAtRegistry(registry, service(""), probe())(probe());
    expectCalls(5);
}

TEST_F(LockRule, HoldsForAStoppedClient) {
    start();
    const Handle handle = registered("echo", "abc");
    client().deinit();
    registerProbed("other")(probe());
    handle(probe());
    client().init();
    expectCalls(3);
}

TEST_F(LockRule, HoldsForARegistrationWithAnEntryThatIsThereAlready) {
    start();
    registered("first", "abc");
    registerProbed("second");
    next("PUT").answer(201, location("/abc"));
    expectCalls(1);
}

TEST_F(LockRule, HoldsForARecordThatIsReplacedWithWithdrawalsWaiting) {
    start();
    registered("first", "abc");
    const Handle handle = registered("second", "def");
    handle(probe());
    access().handlePut(2, request(2), answer(201, location("/abc")));
    EXPECT_EQ(nameOf(2), "first");
    world.settle();
    EXPECT_EQ(count.use_count(), 1);
}

TEST_F(LockRule, HoldsForEveryWayToWithdraw) {
    start();
    const Handle handle = registerService("echo");
    handle(probe());
    next("PUT").answer(201, location("/abc"));
    handle(probe());
    handle(probe());
    next("DELETE").answer(500);
    handle(probe());
    next("DELETE").answer(200);
    handle(probe());
    access().unregister(0, probe());
    expectCalls(6);
}

TEST_F(LockRule, HoldsForAWithdrawalThatEndsWithAFailedRegistration) {
    start();
    const Handle handle = registered("first", "abc");
    registered("second", "abc");
    world.advance(context.getCheckInterval());
    next("HEAD");
    next("HEAD").answer(404);
    simulation::Request put = next("PUT");
    handle(probe());
    put.answer(500);
    EXPECT_THAT(registrationIds(), ::testing::IsEmpty());
    expectCalls(1);
}

TEST_F(LockRule, HoldsForCallbacksThatAStopDrops) {
    start();
    registerProbed("");
    registerProbed("waiting");
    client().deinit();
    EXPECT_EQ(count->called, 0);
    EXPECT_EQ(count.use_count(), 2) << "the waiting registration's";
    next("PUT");
    access().handlePutError(1, request(1), answer(400));
    client().init();
    expectCalls(1);
}

TEST_F(LockRule, HoldsForTheListener) {
    start();
    client().addServiceRegisterStatusListener(probe());
    const auto remove = client().addServiceRegisterStatusListener(probe());
    const Handle handle = registered("echo", "abc");
    loseEntry();
    next("PUT").answer(201, location("/def"));
    handle({});
    next("DELETE").answer(200);
    world.settle();  // queued tasks share the listener
    remove();
    expectCalls(4);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
