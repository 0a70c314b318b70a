// Answers with a uuid that another registration has already: both ids then lead to one record, that
// of the lowest id with this uuid.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::warning;

class SameEntry : public ClientTest {
  protected:
    void answerPut(std::uint64_t id, const ClientTestAccess::Request& to, const std::string& uuid) {
        access().handlePut(id, to, answer(201, location("/" + uuid)));
    }
    /// Advances the clock by the check interval, and answers the HEAD of this path 404 and all
    /// others 200.
    void lose(const std::string& path) {
        world.advance(context.getCheckInterval());
        bool isFound = false;
        for (std::size_t left = world.requestsToTake(); left > 0; --left) {
            simulation::Request head = next("HEAD");
            isFound = isFound || head.path() == path;
            head.answer(head.path() == path ? 404 : 200);
        }
        EXPECT_TRUE(isFound) << path;
    }
};

TEST_F(SameEntry, AnswersTheSecondServiceAndRedirectsItToTheFirst) {
    start();
    registered("first", "abc");
    client().addServiceRegisterStatusListener(listen());
    registerService("second");
    access().addRegisterCallback(2, record("another"));
    const auto ownRecord = access().lifetimeOf(2);
    const auto own = access().service(2);
    forgetThePast();
    next("PUT").answer(201, location("/entries/abc"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 201},
                                            Outcome{"another", "OK", "NONE", 201}));
    EXPECT_EQ(nameOf(2), "first");
    EXPECT_TRUE(ownRecord.expired());
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_EQ(access().service(1)->getUri(), "/abc");
    EXPECT_FALSE(own->hasId());
    EXPECT_EQ(own->getUri(), "/second");
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(SameEntry, StartsNoCheckWhenChecksAreDisabled) {
    context.enableCheck(false);
    start();
    registered("first", "abc");
    registered("second", "abc");
    EXPECT_EQ(nameOf(2), "first");
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
}

TEST_F(SameEntry, AsOneThatIsBeingWithdrawnGoesWithIt) {
    start();
    const Handle handle = registered("first", "abc");
    handle(record("withdrawal"));
    simulation::Request withdrawal = next("DELETE");
    takeOutcomes();
    registered("second", "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 201}));
    withdrawal.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_THAT(registrationIds(), IsEmpty());
}

TEST_F(SameEntry, AsBeforeItsLossIsNoneForALostService) {
    start();
    registered("first", "abc");
    client().addServiceRegisterStatusListener(listen());
    loseEntry();
    world.settle();
    takeNotifications();
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"first", "abc", true}));
    EXPECT_EQ(stateOf(1), State::Announced);
}

TEST_F(SameEntry, EndsANewRegistrationWithoutANotification) {
    start();
    registered("first", "abc");
    registered("second", "def");
    client().addServiceRegisterStatusListener(listen());
    lose("/def");
    world.settle();
    const auto own = notifiedDescription;
    EXPECT_EQ(own->getName(), "second");
    forgetThePast();
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_EQ(nameOf(2), "first");
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_EQ(own->getId(), "");
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
}

TEST_F(SameEntry, TwiceChangesNothing) {
    start();
    registered("first", "abc");
    registerService("second");
    const auto own = request(2);
    next("PUT").answer(201, location("/abc"));
    forgetThePast();
    answerPut(2, own, "abc");
    world.settle();
    EXPECT_EQ(nameOf(2), "first");
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
}

TEST_F(SameEntry, IsTriedAgainLikeALostServiceWhenItsPutFails) {
    start();
    registered("first", "abc");
    registerService("second");
    const auto own = request(2);
    next("PUT").answer(201, location("/abc"));
    forgetThePast();
    access().handlePutError(2, own, answer(500));
    world.settle();
    EXPECT_THAT(log->takeLines(), ElementsAre(testing::info("re-register request: /second")));
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(registrationIds(), ElementsAre(1, 2));
}

TEST_F(SameEntry, IsNotFoundByAnEmptyUuidWhereNoIdWasEverSet) {
    start();
    registerService("first");
    simulation::Request first = next("PUT");
    registered("second", "");
    EXPECT_EQ(nameOf(2), "second");
    EXPECT_EQ(stateOf(2), State::Announced);
    EXPECT_TRUE(access().service(2)->hasId());
    first.answer(201, location("/"));
    EXPECT_EQ(nameOf(1), "second");
}

TEST_F(SameEntry, IsFoundByAnEmptyUuidWhereTheIdWasCleared) {
    start();
    registered("first", "abc");
    registered("second", "def");
    lose("/abc");
    forgetThePast();
    next("PUT");
    registered("third", "");
    EXPECT_EQ(nameOf(3), "first");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"third", "OK", "NONE", 201}));
}

TEST_F(SameEntry, OfALostServiceWithAnEmptyUuidIsItsOwn) {
    start();
    registered("first", "abc");
    client().addServiceRegisterStatusListener(listen());
    loseEntry();
    forgetThePast();
    next("PUT").answer(201, location("/"));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Lost);
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
    world.advance(Seconds(10));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("sendHeadRequest called but service is not REGISTERED. id=1")));
}

TEST_F(SameEntry, IsTheOneWithTheLowestIdInAnyOrderOfTheLosses) {
    start();
    registered("first", "abc");
    registered("second", "def");
    lose("/def");
    next("PUT");
    lose("/abc");
    next("PUT");
    registered("third", "");
    EXPECT_EQ(nameOf(3), "first");
    ClientTestAccess::Callbacks dropped;
    access().deleteEntries(1, dropped);
    EXPECT_THAT(registrationIds(), ElementsAre(2));
    registered("fourth", "");
    EXPECT_EQ(nameOf(4), "second");
}

TEST_F(SameEntry, IsNotFoundByTheDescriptionOfARedirectedRequest) {
    start();
    registered("first", "abc");
    registerService("second");
    client().addServiceRegisterStatusListener(listen());
    next("PUT").answer(201, location("/abc"));
    lose("/");
    world.settle();
    const auto description = notifiedDescription;
    EXPECT_EQ(description->getName(), "second");
    EXPECT_EQ(description->getId(), "");
    simulation::Request put = next("PUT");
    registered("third", "");
    EXPECT_EQ(nameOf(3), "third");
    put.answer(201, location("/def"));
    EXPECT_EQ(description->getId(), "def");
    EXPECT_EQ(uuidOf(2), "abc");
    registered("fourth", "def");
    EXPECT_EQ(nameOf(4), "fourth");
    EXPECT_EQ(stateOf(4), State::Announced);
}

// A request that was led to another record keeps its description, which still belongs to its old
// record as long as another id leads there. A change through the first id must be found through the
// other one.
TEST_F(SameEntry, IsFoundByItsDescriptionAfterTheIdOfItsRequestWasRedirected) {
    start();
    registered("first", "abc");
    registered("second", "def");
    registered("third", "def");
    const auto own = request(2);
    access().handleHead(2, own, answer(404));
    next("PUT").answer(201, location("/abc"));
    EXPECT_EQ(nameOf(2), "first");
    EXPECT_EQ(request(3), own);
    answerPut(2, own, "ghi");
    EXPECT_EQ(uuidOf(3), "ghi");
    registered("fourth", "ghi");
    EXPECT_EQ(nameOf(3), "second");
    EXPECT_EQ(nameOf(4), "second");
    registered("fifth", "");
    EXPECT_EQ(nameOf(5), "fifth");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
