// getRegistrations() and the registration listener, with resilience and without, and their options.
#include "ResilientTest.h"

#include <orvx/utility/OrvFoundationException.h>

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// Runs with resilience and without.
class TheStatusOfARegistration : public ResilientTest, public ::testing::WithParamInterface<bool> {
  protected:
    TheStatusOfARegistration() { context.enableResilience(GetParam()); }
};

TEST_P(TheStatusOfARegistration, FollowsItFromTheFirstPutToTheWithdrawal) {
    start();
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    const Handle handle = registerService("echo", "/x", "echo");
    EXPECT_EQ(status().requestId, 1U);
    EXPECT_EQ(status().name, "echo");
    EXPECT_EQ(status().uri, "/x");
    EXPECT_EQ(status().endpoint, "127.0.0.1:8500");
    EXPECT_EQ(status().uuid, "");
    EXPECT_EQ(state(), "announcing");
    EXPECT_EQ(status().attempts, 1U);
    EXPECT_FALSE(status().lastConfirmed);
    EXPECT_FALSE(status().lastFailure);
    EXPECT_FALSE(status().nextAttempt);
    const auto began = status().since;

    waitFor("PUT");
    fail(CommunicationStatus::ConnectFailed);
    EXPECT_EQ(state(), "announcing");
    EXPECT_EQ(status().lastFailure->communicationStatus, CommunicationStatus::ConnectFailed);
    EXPECT_EQ(status().lastFailure->httpStatus, 0);
    EXPECT_EQ(status().lastFailure->text, "PUT: CONNECT_FAILED");
    EXPECT_GT(status().nextAttempt.value(), status().since);
    waitFor("PUT");
    EXPECT_EQ(status().attempts, 2U);
    answer(201, location("/abc"));
    EXPECT_EQ(state(), "announced");
    EXPECT_EQ(status().uuid, "abc");
    EXPECT_EQ(status().attempts, 0U);
    EXPECT_EQ(status().lastConfirmed, status().since);
    EXPECT_GT(status().since, began);
    EXPECT_TRUE(status().lastFailure) << "it is kept";

    waitFor("HEAD");
    answer(503);
    EXPECT_EQ(state(), "unreachable");
    EXPECT_EQ(status().lastFailure->httpStatus, 503);
    EXPECT_EQ(status().lastFailure->text, "HEAD: HTTP status 503");
    EXPECT_LT(status().lastConfirmed.value(), status().since);
    waitFor("HEAD");
    answer(200);
    EXPECT_EQ(state(), "announced");
    waitFor("HEAD");
    answer(404);
    EXPECT_EQ(state(), "lost");
    EXPECT_EQ(status().lastFailure->text, "HEAD: HTTP status 404") << "the reason of the loss";
    waitFor("PUT");
    answer(200, location("/def"));
    EXPECT_EQ(state(), "announced");
    handle({});
    EXPECT_EQ(state(), "withdrawing");
    expect("DELETE", "/def", 200);
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    EXPECT_THAT(
        takeEvents(),
        ElementsAre(
            Event{"unreachable", "echo", "announcing"}, Event{"reachable", "echo", "announcing"},
            Event{"announced", "echo", "announced"}, Event{"unreachable", "echo", "unreachable"},
            Event{"reachable", "echo", "announced"}, Event{"lost", "echo", "lost"},
            Event{"announced", "echo", "announced"}, Event{"withdrawn", "echo", "withdrawing"}));
}

TEST_P(TheStatusOfARegistration, EndsWithARegistrationThatIsGivenUp) {
    start();
    registerService("echo");
    waitFor("PUT");
    answer(400, "");
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    EXPECT_EQ(takeEvents().back().kind, "withdrawn");
}

TEST_P(TheStatusOfARegistration, IsListedForEachByItsRequestId) {
    start();
    for (const char* const name : {"a", "b", "c"}) {
        registerService(name);
    }
    ASSERT_THAT(context.getRegistrations(), SizeIs(3));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(status(i).requestId, i + 1);
    }
}

TEST_P(TheStatusOfARegistration, IsThereFromInitToDeinit) {
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    start();
    registerService("echo");
    EXPECT_THAT(context.getRegistrations(), SizeIs(1));
    context.deinit();
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

TEST_P(TheStatusOfARegistration, MayBeAskedForInACallback) {
    start();
    std::size_t seen = 0;
    client().registerServiceAtRegistry(
        registry, service("echo"), [&](const auto&) { seen = context.getRegistrations().size(); });
    expect("PUT", "/echo", 201, "abc");
    EXPECT_EQ(seen, 1U);
}

INSTANTIATE_TEST_SUITE_P(Rules, TheStatusOfARegistration, ::testing::Bool(),
                         [](const auto& rules) { return rules.param ? "Resilient" : "Basic"; });

/// Without resilience the time-out of a check ends it.
TEST_F(ResilientTest, ReportsThatACheckWasAbandonedWithoutResilience) {
    context.enableResilience(false);
    start();
    registered("echo", "abc");
    waitFor("HEAD");
    world.advance(context.getHeadTimeout());
    world.settle();
    EXPECT_EQ(state(), "unreachable");
    EXPECT_EQ(status().lastFailure->communicationStatus, CommunicationStatus::Abandoned);
    EXPECT_FALSE(status().nextAttempt) << "nothing looks at it any more";
}

TEST_F(ResilientTest, ListsTwoRegistrationsThatBecameOneWithoutResilience) {
    context.enableResilience(false);
    start();
    registered("first", "abc");
    registered("second", "abc");
    ASSERT_THAT(context.getRegistrations(), SizeIs(2));
    EXPECT_EQ(status(0).uuid, "abc");
    EXPECT_EQ(status(1).uuid, "abc");
    EXPECT_EQ(status(1).requestId, 2U);
}

std::string refusal(const std::function<void()>& set) {
    try {
        set();
    } catch (const utility::OrvFoundationException& exception) {
        return exception.what();
    }
    return "";
}

TEST_F(ResilientTest, IsSwitchedOnBeforeInitOnly) {
    OrvServiceRegistryContext fresh;
    EXPECT_FALSE(fresh.isResilienceEnabled());
    EXPECT_EQ(fresh.getWithdrawAtDeinit(), Milliseconds(0));
    EXPECT_FALSE(fresh.getRegistrationListener());
    start();
    EXPECT_EQ(refusal([this] { context.enableResilience(false); }),
              "enabling resilience after init is not allowed");
    EXPECT_EQ(refusal([this] { context.setWithdrawAtDeinit(Seconds(1)); }),
              "setting withdrawal at deinit after init is not allowed");
    EXPECT_EQ(refusal([this] { context.setRegistrationListener({}); }),
              "setting registration listener after init is not allowed");
    EXPECT_TRUE(context.isResilienceEnabled());
    context.deinit();
    context.enableResilience(false);
    EXPECT_FALSE(context.isResilienceEnabled());
}

TEST_F(ResilientTest, HasNamesForStatesAndEvents) {
    EXPECT_STREQ(registrationStateToString(static_cast<RegistrationStatus::State>(5)), "");
    EXPECT_STREQ(registrationEventToString(static_cast<RegistrationEvent::Kind>(5)), "");
    EXPECT_STREQ(registrationEventToString(RegistrationEvent::Kind::Withdrawn), "withdrawn");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
