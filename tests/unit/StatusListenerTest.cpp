// The status listener: its notifications and their times, its replacement and removal.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using ConstModel = std::shared_ptr<const common::ServiceModel>;

class TheStatusListener : public ClientTest {
  protected:
    /// A listener that adds its own name to `told`.
    IOrvServiceRegistryClient::StatusListener named(const std::string& name) {
        return [this, name](const ConstModel&, bool) { told.push_back(name); };
    }

    std::vector<std::string> told;
};

TEST_F(TheStatusListener, IsNotifiedOfEveryGainAndLoss) {
    start();
    client().addServiceRegisterStatusListener(listen());
    const Handle withdraw = registered("echo", "abc");
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", true}));
    dueHead().answer(404);
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "", false}));
    next("PUT").answer(200, location("/def"));
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "def", true}));
    withdraw({});
    next("DELETE").answer(200);
    EXPECT_THAT(notifications, IsEmpty()) << "never on the thread that brings the answer";
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "def", false}));
}

TEST_F(TheStatusListener, IsNotNotifiedOfFailures) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registerService("echo");
    next("PUT").answer(400);
    registered("time", "def")({});
    world.settle();
    takeNotifications();
    next("DELETE").answer(500);
    world.settle();
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(TheStatusListener, IsNotifiedBeforeTheCallbacks) {
    start();
    client().addServiceRegisterStatusListener(named("listener"));
    const auto callback = [this](const OrvRegistrationResponse&) { told.emplace_back("callback"); };
    const Handle withdraw = client().registerServiceAtRegistry(registry, service("echo"), callback);
    next("PUT").answer(201, location("/abc"));
    withdraw(callback);
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(told, ElementsAre("listener", "callback", "listener", "callback"));
}

TEST_F(TheStatusListener, GetsTheLiveDescription) {
    start();
    std::vector<ConstModel> models;
    client().addServiceRegisterStatusListener(
        [&models](const ConstModel& model, bool) { models.push_back(model); });
    const Handle withdraw = registered("echo", "abc");
    EXPECT_EQ(models.at(0)->getId(), "abc");
    dueHead().answer(404);
    world.settle();
    EXPECT_EQ(models.at(0)->getId(), "");
    next("PUT").answer(201, location("/def"));
    withdraw({});
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(models, SizeIs(4));
    EXPECT_THAT(models, Each(models.at(0))) << "all are the same object";
    EXPECT_EQ(models.at(0)->getId(), "def");
}

TEST_F(TheStatusListener, IsDroppedWhenAnotherIsSet) {
    start();
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    client().addServiceRegisterStatusListener(
        [this, owned = std::move(owned)](const ConstModel&, bool) { told.emplace_back("first"); });
    client().addServiceRegisterStatusListener(named("second"));
    EXPECT_TRUE(watched.expired());
    registered("echo", "abc");
    EXPECT_THAT(told, ElementsAre("second"));
}

TEST_F(TheStatusListener, IsRemovedByItsRemover) {
    start();
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    const auto remove = client().addServiceRegisterStatusListener(
        [this, owned = std::move(owned)](const ConstModel&, bool) {
            told.emplace_back("removed");
        });
    remove();
    EXPECT_TRUE(watched.expired());
    remove();
    const Handle withdraw = registered("echo", "abc");
    dueHead().answer(404);
    next("PUT").answer(201, location("/def"));
    withdraw({});
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(TheStatusListener, IsRemovedByTheRemoverOfTheOneBefore) {
    start();
    const auto remove = client().addServiceRegisterStatusListener(named("first"));
    client().addServiceRegisterStatusListener(named("second"));
    remove();
    registered("echo", "abc");
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(TheStatusListener, IsRemovedByAnEmptyOne) {
    start();
    client().addServiceRegisterStatusListener(named("first"));
    client().addServiceRegisterStatusListener({});
    registerService("echo");
    next("PUT").answer(201, location("/abc"));
    EXPECT_EQ(world.queuedTasks(), 1U) << "the callback's";
    world.settle();
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(TheStatusListener, CanBeSetAgainAfterItsRemoval) {
    start();
    client().addServiceRegisterStatusListener(named("first"))();
    client().addServiceRegisterStatusListener(named("second"));
    registered("echo", "abc");
    EXPECT_THAT(told, ElementsAre("second"));
}

TEST_F(TheStatusListener, OfTheTimeOfANotificationGetsIt) {
    start();
    const auto remove = client().addServiceRegisterStatusListener(named("first"));
    const Handle withdraw = registerService("echo");
    next("PUT").answer(201, location("/abc"));
    client().addServiceRegisterStatusListener(named("second"));
    dueHead().answer(404);
    next("PUT").answer(201, location("/def"));
    remove();
    withdraw({});
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(told, ElementsAre("first", "second", "second"));
}

TEST_F(TheStatusListener, MayReplaceAndRemoveItselfDuringANotification) {
    start();
    std::function<void()> remove;
    remove = client().addServiceRegisterStatusListener([&](const ConstModel&, bool) {
        told.emplace_back("first");
        client().addServiceRegisterStatusListener([&](const ConstModel&, bool) {
            told.emplace_back("second");
            remove();
        });
    });
    registered("echo", "abc");
    registered("time", "def");
    registered("date", "ghi");
    EXPECT_THAT(told, ElementsAre("first", "second"));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
