// With resilience registrations of one entry remain separate registrations: the registry holds the
// latest description that is not withdrawn.
#include "ResilientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class OneEntryOfTwo : public ResilientTest {
  protected:
    /// Registers a service with the path "/x".
    Handle registerAs(const std::string& name) { return registerService(name, "/x", name); }
    void expectPutOf(const std::string& name, int status = 201, const std::string& uuid = "abc") {
        waitFor("PUT");
        EXPECT_EQ(last->path(), "/x");
        EXPECT_THAT(last->body(), HasSubstr('"' + name + '"'));
        answer(status, location("/" + uuid));
    }
    void announceBoth() {
        first = registerAs("first");
        second = registerAs("second");
        expectPutOf("first");
        expectPutOf("second");
        takeOutcomes();
        takeEvents();
    }

    Handle first;
    Handle second;
};

TEST_F(OneEntryOfTwo, HoldsTheLatestDescriptionAndHasOneCheck) {
    start();
    first = registerAs("first");
    second = registerAs("second");
    EXPECT_EQ(world.requestsToTake(), 1U) << "one request of an entry at a time";
    expectPutOf("first");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "OK", "NONE", 201}));
    expectPutOf("second");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 201}));
    EXPECT_THAT(context.getRegistrations(), SizeIs(2));
    waitFor("HEAD");
    answer(200);
    EXPECT_EQ(waitFor("HEAD"), Seconds(10));
}

TEST_F(OneEntryOfTwo, SendsTheSecondDescriptionAtOnceIfTheFirstWasWithdrawnAndIsRefused) {
    start();
    first = registerAs("first");
    waitFor("PUT");
    first({});
    second = registerAs("second");
    answer(403);
    EXPECT_EQ(world.requestsToTake(), 1U);
    expectPutOf("second");
    takeOutcomes();
    expect("HEAD", "/abc", 404);
    waitFor("PUT");
    auto third = registerAs("third");
    answer(400);
    EXPECT_EQ(world.requestsToTake(), 1U);
    expectPutOf("third");
}

TEST_F(OneEntryOfTwo, IsDeletedWhenTheLastIsWithdrawn) {
    start();
    announceBoth();
    first(record("withdraw first"));
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U) << "the registry holds the second's";
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdraw first", "OK", "NONE", -1}));
    second(record("withdraw second"));
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdraw second", "OK", "NONE", 200}));
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

TEST_F(OneEntryOfTwo, GetsTheEarlierDescriptionBackWhenTheLaterIsWithdrawn) {
    start();
    announceBoth();
    second(record("withdraw second"));
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    expectPutOf("first", 200);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdraw second", "OK", "NONE", 200}));
    EXPECT_THAT(context.getRegistrations(), SizeIs(1));
}

TEST_F(OneEntryOfTwo, HoldsTheLatestAfterALossToo) {
    start();
    announceBoth();
    expect("HEAD", "/abc", 404);
    expectPutOf("second", 201, "def");
    EXPECT_EQ(state(0), "announced");
    EXPECT_EQ(state(1), "announced");
    EXPECT_EQ(status(0).uuid, "def");
    second({});
    expectPutOf("first", 200, "def");
    expect("HEAD", "/def", 404);
    expectPutOf("first", 201, "ghi");
}

TEST_F(OneEntryOfTwo, PutsTheLatestAgainAfterADeleteThatFailed) {
    start();
    first = registerAs("first");
    expectPutOf("first");
    first({});
    waitFor("DELETE");
    fail(CommunicationStatus::ReceiveFailed);
    registerAs("second");
    expectPutOf("second");
    EXPECT_THAT(context.getRegistrations(), SizeIs(1));
}

TEST_F(OneEntryOfTwo, LearnsTheUuidAnewWhereAnAnswerWasLost) {
    start();
    first = registerAs("first");
    expectPutOf("first", 201, "abc");
    second = registerAs("second");
    waitFor("PUT");
    fail(CommunicationStatus::ReceiveFailed);
    first({});
    second({});
    expectPutOf("second", 201, "def");
    expect("DELETE", "/def", 200);
    expect("DELETE", "/abc", 404);
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

TEST_F(OneEntryOfTwo, KeepsTheFirstWhenTheSecondIsRefused) {
    start();
    first = registerAs("first");
    expectPutOf("first");
    registerAs("second");
    takeOutcomes();
    expectPutOf("second", 400);
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"second", "ERROR", "SERVICE_REGISTRY_ERROR", 400}));
    expectPutOf("first", 200);
    EXPECT_THAT(context.getRegistrations(), SizeIs(1));
    waitFor("HEAD");
}

TEST_F(OneEntryOfTwo, IsFoundByItsUuidWhereThePathsDiffer) {
    start();
    first = registerService("first", "/a", "first");
    second = registerService("second", "/b", "second");
    waitFor("PUT");
    auto one = *last;
    waitFor("PUT");
    one.answer(201, location("/same"));
    answer(201, location("/same"));
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "OK", "NONE", 201},
                                            Outcome{"second", "OK", "NONE", 201}));
    // It is unknown which of the two descriptions the registry stored last.
    expect("PUT", "/b", 200, "same");
    first({});
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    second({});
    expect("DELETE", "/same", 200);
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    expectNothingFor(std::chrono::hours(1));
}

// The registry may have processed the two requests in the other order than it answers them.
TEST_F(OneEntryOfTwo, IsSentAgainIfAPutWasOutstandingWhenThePathsTurnedOutToBeTheSame) {
    start();
    registerService("first", "/a", "first");
    expect("PUT", "/a", 201, "same");
    registerService("second", "/b", "second");
    waitFor("PUT");
    auto put = *last;
    registerService("third", "/a", "third");
    waitFor("PUT");
    takeOutcomes();
    put.answer(200, location("/same"));
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U) << "one request of an entry at a time";
    answer(200, location("/same"));
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 200},
                                            Outcome{"third", "OK", "NONE", 200}));
    ASSERT_EQ(world.requestsToTake(), 1U);
    EXPECT_EQ(expect("PUT", "/a", 200, "same"), Seconds(0));
    EXPECT_THAT(last->body(), HasSubstr("\"third\""));
    waitFor("HEAD");
}

// The registry may have made the entry again after it had processed the DELETE.
TEST_F(OneEntryOfTwo, IsDeletedAgainIfADeleteWasOutstandingWhenThePathsTurnedOutToBeTheSame) {
    start();
    first = registerService("first", "/a", "first");
    expect("PUT", "/a", 201, "same");
    second = registerService("second", "/b", "second");
    waitFor("PUT");
    auto put = *last;
    first({});
    waitFor("DELETE");
    put.answer(200, location("/same"));
    second({});
    answer(200);
    EXPECT_EQ(expect("DELETE", "/same", 404), Seconds(0));
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(OneEntryOfTwo, DeletesTheOldEntryWhereTheRegistryGivesAnotherUuid) {
    start();
    first = registerAs("first");
    expectPutOf("first", 201, "abc");
    second = registerAs("second");
    expectPutOf("second", 201, "def");
    expect("DELETE", "/abc", 200);
    EXPECT_EQ(status(0).uuid, "def");
    second({});
    expectPutOf("first", 200, "def");
    first({});
    expect("DELETE", "/def", 200);
    expectNothingFor(std::chrono::hours(1));
}

// The old entry is in no path of its own when the registry assigns its uuid again.
TEST_F(OneEntryOfTwo, IsAnnouncedSoonAfterARecoveryAlsoIfItTookOverAnOldEntry) {
    context.enableCheck(false);
    start();
    first = registerAs("first");
    expectPutOf("first", 201, "abc");
    second = registerAs("second");
    expectPutOf("second", 201, "def");
    waitFor("DELETE");
    auto removal = *last;
    const auto third = registerAs("third");
    expectPutOf("third", 201, "abc");
    removal.answer(200);
    world.settle();
    waitFor("PUT");
    auto put = *last;
    expect("DELETE", "/def", 200);
    put.answer(communication::HttpResponse(CommunicationStatus::ConnectFailed));
    world.settle();
    for (int i = 0; i < 8; ++i) {
        waitFor("PUT");
        EXPECT_EQ(last->path(), "/x");
        fail(CommunicationStatus::ConnectFailed);
    }
    registerService("other");
    expect("PUT", "/other", 201, "ghi");
    EXPECT_LE(expect("PUT", "/x", 201, "jkl"), Seconds(1));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
