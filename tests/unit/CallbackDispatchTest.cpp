// The delivery of outcomes to user code: order, sharing, and operations that user code may call.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::warning;

class CallbackDispatch : public ClientTest {
  protected:
    static std::shared_ptr<OrvRegistrationResponse> response() {
        return std::make_shared<OrvRegistrationResponse>(OrvRegistrationResponse::OK,
                                                         OrvRegistrationResponse::NONE);
    }
    /// Registers a service without a name: the outcome is known during the call.
    Handle refuse(IOrvServiceRegistryClient::ResponseCallback callback) {
        return client().registerServiceAtRegistry(registry, service(""), std::move(callback));
    }
};

TEST_F(CallbackDispatch, OnlyQueuesAndDeliversOnTheCallbackThread) {
    start();
    refuse(record("one"));
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(world.queuedTasks(), 1U);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"one", "ERROR", "SERVICE_NAME_MISSING", -1}));
}

TEST_F(CallbackDispatch, KeepsTheOrderOfTheOutcomes) {
    start();
    const Handle withdraw = refuse(record("first"));
    const auto unwritable = service("echo");
    unwritable->setDescription("\xff");
    client().registerServiceAtRegistry(registry, unwritable, record("second"));
    withdraw(record("third"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "ERROR", "SERVICE_NAME_MISSING", -1},
                                            Outcome{"second", "ERROR", "OTHER", -1},
                                            Outcome{"third", "OK", "NONE", -1}));
}

TEST_F(CallbackDispatch, OfNothingQueuesNothing) {
    start();
    const auto one = response();
    access().dispatch({}, one);
    EXPECT_EQ(world.queuedTasks(), 0U);
    EXPECT_EQ(one.use_count(), 1);
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(CallbackDispatch, SharesTheResponseAndCopiesItAtTheCallOnly) {
    start();
    const auto one = response();
    access().dispatch(record("first"), one);
    access().dispatch(record("second"), one);
    EXPECT_EQ(one.use_count(), 3);
    one->status = OrvRegistrationResponse::ERROR;
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "ERROR", "NONE", -1},
                                            Outcome{"second", "ERROR", "NONE", -1}));
    EXPECT_EQ(one.use_count(), 1);
}

TEST_F(CallbackDispatch, GivesEachCallbackACopyOfItsOwn) {
    start();
    const Handle withdraw = registered("echo", "abc");
    takeOutcomes();
    withdraw([](OrvRegistrationResponse copy) {
        copy.status = OrvRegistrationResponse::ERROR;
        copy.errorCode = OrvRegistrationResponse::OTHER;
        copy.httpResponse.reset();
    });
    withdraw(record("next"));
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"next", "OK", "NONE", 200}));
}

TEST_F(CallbackDispatch, ReleasesACallbackWhenItHasRun) {
    start();
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    refuse([owned = std::move(owned)](const auto&) {});
    EXPECT_FALSE(watched.expired());
    world.settle();
    EXPECT_TRUE(watched.expired());
}

TEST_F(CallbackDispatch, RunsTheNextCallbackAfterOneThatThrows) {
    start();
    client().registerServiceAtRegistry(registry, service("first"),
                                       [](const auto&) { throw std::runtime_error("callback"); });
    client().registerServiceAtRegistry(registry, service("second"), [](const auto&) { throw 7; });
    registerService("third");
    for (const std::string uuid : {"a", "b", "c"}) {
        next("PUT").answer(201, location("/" + uuid));
    }
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"third", "OK", "NONE", 201}));
    EXPECT_THAT(registrationIds(), ElementsAre(1, 2, 3));
}

TEST_F(CallbackDispatch, CallsCallbacksAfterAListenerThatThrows) {
    start();
    client().addServiceRegisterStatusListener(
        [](const auto&, bool) { throw std::runtime_error("listener"); });
    registered("echo", "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(CallbackDispatch, LetsOperationsWithoutCallbackDoTheirWork) {
    start();
    client().registerServiceAtRegistry(registry, service(""), {});
    const Handle handle = client().registerServiceAtRegistry(registry, service("echo"), {});
    handle({});
    log->takeLines();
    next("PUT").answer(201, location("/abc"));
    EXPECT_THAT(registrationIds(), ElementsAre(1));
    handle({});
    next("DELETE").answer(200);
    EXPECT_THAT(registrationIds(), IsEmpty());
    handle({});
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("Trying to unregister a service that is not registered "
                                    "(anymore). Ignore. id=1")));
    client().registerServiceAtRegistry(registry, service("other"), {});
    next("PUT").answer(400);
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_EQ(world.queuedTasks(), 0U);
}

TEST_F(CallbackDispatch, LetsACallbackWithdrawItsService) {
    start();
    Handle handle;
    handle = client().registerServiceAtRegistry(registry, service("echo"),
                                                [&](const auto&) { handle(record("withdrawal")); });
    next("PUT").answer(201, location("/abc"));
    world.settle();
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
}

TEST_F(CallbackDispatch, LetsACallbackRegisterOn) {
    start();
    client().registerServiceAtRegistry(registry, service(""), [&](const auto&) {
        registerService("second");
        client().registerServiceAtRegistry(registry, service(""), record("third"));
        EXPECT_THAT(outcomes, IsEmpty());
    });
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"third", "ERROR", "SERVICE_NAME_MISSING", -1}));
    EXPECT_EQ(next("PUT").path(), "/second");
}

TEST_F(CallbackDispatch, LetsTheListenerReplaceItself) {
    start();
    client().addServiceRegisterStatusListener([&](const auto& model, bool registered) {
        client().addServiceRegisterStatusListener(listen());
        notifications.push_back({"first " + model->getName(), model->getId(), registered});
    });
    registered("one", "a");
    registered("two", "b");
    EXPECT_THAT(takeNotifications(),
                ElementsAre(Notification{"first one", "a", true}, Notification{"two", "b", true}));
}

TEST_F(CallbackDispatch, GivesAQueuedNotificationToTheListenerOfItsTime) {
    start();
    const auto remove = client().addServiceRegisterStatusListener(listen());
    registerService("one");
    registerService("two");
    next("PUT").answer(201, location("/a"));
    remove();
    next("PUT").answer(201, location("/b"));
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"one", "a", true}));
}

TEST_F(CallbackDispatch, FixesTheNotificationAtTheTimeOfTheEvent) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registerService("echo");
    next("PUT").answer(201, location("/abc"));
    loseEntry();
    world.settle();
    EXPECT_THAT(takeNotifications(),
                ElementsAre(Notification{"echo", "", true}, Notification{"echo", "", false}))
        << "the description is the live one, the event is not";
}

TEST_F(CallbackDispatch, CanStopTheClientFromInsideACallback) {
    start();
    client().registerServiceAtRegistry(registry, service(""),
                                       [this](const auto&) { context.deinit(); });
    client().registerServiceAtRegistry(registry, service(""), record("dropped"));
    world.settle();
    EXPECT_FALSE(context.isInitiated());
    EXPECT_THAT(outcomes, IsEmpty());
    start();
    registered("echo", "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
