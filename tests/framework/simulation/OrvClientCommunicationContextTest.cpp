// The contracts of the communication context and its sessions, kept by the simulated definition.

#include "SimulatedNetwork.h"

#include <orvx/utility/OrvFoundationException.h>

namespace orvx::simulation {
namespace {

using communication::HttpConfig;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using TheSimulatedContext = SimulatedNetwork;
using AnAbandonedHead = SimulatedNetwork;
using TheUnavailableSession = SimulatedNetwork;

TEST_F(TheSimulatedContext, RecordsTheSessionsThatItMakes) {
    HttpConfig config;
    config.userAgent = "tester";
    context->getClientHttpFactory().createSession("::1", 9000, config, context->getHealthCheck(),
                                                  context->getClientStatistics());
    ASSERT_EQ(world.sessions().size(), 2U);
    EXPECT_EQ(world.sessions()[0].host, "registry");
    EXPECT_EQ(world.sessions()[1].host, "::1");
    EXPECT_EQ(world.sessions()[1].port, 9000);
    EXPECT_EQ(world.sessions()[1].config.userAgent, "tester");
}

TEST_F(TheSimulatedContext, RefusesEndpointsThatCannotBe) {
    EXPECT_THROW(makeSession(0), utility::OrvFoundationException);
    EXPECT_THROW(makeSession(65536), utility::OrvFoundationException);
    for (const char* host :
         {"", "https://registry", "registry/path", "registry:80", "[registry]"}) {
        EXPECT_THROW(context->getClientHttpFactory().createSession(
                         host, 1, {}, context->getHealthCheck(), context->getClientStatistics()),
                     utility::OrvFoundationException)
            << host;
    }
    EXPECT_EQ(world.sessions().size(), 1U) << "the fixture's";
}

TEST_F(TheSimulatedContext, RefusesAConfigurationThatCannotBe) {
    HttpConfig config;
    config.requestTimeout = std::chrono::milliseconds(0);
    EXPECT_THROW(
        context->getClientHttpFactory().createSession(
            "registry", 1, config, context->getHealthCheck(), context->getClientStatistics()),
        utility::OrvFoundationException);
    context->deinit();
    context->setHttpConfig(config);
    EXPECT_THROW(context->init(), utility::OrvFoundationException);
    config = HttpConfig();
    config.tls.enabled = true;
    config.tls.authorityFile = "/no/such/file";
    context->setHttpConfig(config);
    context->init();  // does not read the file
}

TEST_F(TheSimulatedContext, HandsOutTheConfigurationThatItWasInitialisedWith) {
    HttpConfig config;
    config.userAgent = "tester";
    context->setHttpConfig(config);
    context->init();
    EXPECT_EQ(context->getHttpConfig().userAgent, HttpConfig().userAgent);
    context->deinit();
    context->init();
    EXPECT_EQ(context->getHttpConfig().userAgent, "tester");
}

TEST_F(TheSimulatedContext, CountsWhereTheConfigurationSays) {
    HttpConfig config;
    config.statistics = std::make_shared<communication::ClientStatistics>();
    context->deinit();
    context->setHttpConfig(config);
    context->init();
    makeSession(9000)->sendHeadRequest("/", nullptr);
    take().answer(404);
    context->getUnavailableSession()->sendDeleteRequest("/", "", nullptr);
    world.runIo();
    using Method = communication::ClientStatistics::Method;
    const auto byMethod = config.statistics->snapshot().byMethod;
    EXPECT_EQ(byMethod.at(Method::Head).byHttpStatus, (std::map<int, std::uint64_t>{{404, 1}}));
    EXPECT_EQ(byMethod.at(Method::Delete).last->status, CommunicationStatus::NoSession);
    EXPECT_EQ(byMethod.at(Method::Put).completed, 0U);
}

TEST_F(TheSimulatedContext, DropsWhatIsSentBeforeItIsInitialised) {
    OrvClientCommunicationContext fresh;
    const auto early = fresh.getClientHttpFactory().createSession(
        "h", 1, {}, fresh.getHealthCheck(), fresh.getClientStatistics());
    bool destroyed = false;
    early->sendHeadRequest("/", [end = atEnd([&] { destroyed = true; })](const HttpResponse&) {});
    EXPECT_TRUE(destroyed);
    EXPECT_FALSE(world.takeRequest());
    fresh.init();
    early->sendHeadRequest("/", note("head"));
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("head 200"));
}

TEST_F(TheSimulatedContext, DropsOutstandingRequestsWhenItIsDeinitialised) {
    int destroyed = 0;
    for (int i = 0; i < 3; ++i) {
        put("/echo", [end = atEnd([&] { ++destroyed; })](const HttpResponse&) { FAIL(); });
    }
    Request request = take();
    context->deinit();
    EXPECT_EQ(destroyed, 3);
    EXPECT_FALSE(request.isOutstanding());
    EXPECT_EQ(world.outstandingRequests(), 0U);
    request.answer(200);
    EXPECT_EQ(world.requestsToTake(), 2U) << "they were sent all the same";
    EXPECT_FALSE(take().isOutstanding());
}

TEST_F(TheSimulatedContext, DropsWhatIsQueuedForTheIoThreadWhenItIsDeinitialised) {
    session->sendHeadRequest("/", note("abandoned"));
    session->abandon();
    context->getUnavailableSession()->sendHeadRequest("/", note("refused"));
    context->deinit();
    context->init();
    world.runIo();
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(TheSimulatedContext, DropsOutstandingRequestsWithItself) {
    put("/echo", note("never"));
    Request request = take();
    context.reset();
    request.answer(200);
    EXPECT_THAT(outcomes, IsEmpty());
    put("/echo", note("never"));
    session->abandon();
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(TheSimulatedContext, LeavesTheRequestsOfOthersAlone) {
    OrvClientCommunicationContext other;
    other.init();
    other.getClientHttpFactory()
        .createSession("h", 1, {}, other.getHealthCheck(), other.getClientStatistics())
        ->sendHeadRequest("/", note("other"));
    put("/echo", note("never"));
    context->deinit();
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("other 200"));
}

TEST_F(TheSimulatedContext, TakesNothingFromTheDestructorsOfDroppedHandlers) {
    for (int i = 0; i < 3; ++i) {
        session->sendHeadRequest("/", [end = atEnd([this] {
                                           session->abandon();
                                           session->sendHeadRequest("/again", note("never"));
                                       })](const HttpResponse&) { FAIL(); });
    }
    context->deinit();
    EXPECT_EQ(world.outstandingRequests(), 0U);
    EXPECT_EQ(world.requestsToTake(), 3U);
    context->init();
    world.runIo();
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(TheSimulatedContext, WorksAgainWithTheSessionsThatWereKept) {
    session->sendHeadRequest("/before", note("never"));
    take();
    context->deinit();
    put("/meanwhile", note("never"));
    context->init();
    session->sendHeadRequest("/after", note("after"));
    Request request = take();
    EXPECT_EQ(request.path(), "/after");
    request.answer(200);
    EXPECT_THAT(outcomes, ElementsAre("after 200"));
}

TEST_F(TheSimulatedContext, KeepsItsRequestsWhenItIsInitialisedTwice) {
    put("/echo", note("put"));
    context->init();
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("put 200"));
}

TEST_F(TheSimulatedContext, MayBeDeinitialisedByAHandler) {
    put("/a", [this](const HttpResponse& response) {
        context->deinit();
        note("a")(response);
    });
    put("/b", note("never"));
    take().answer(200);
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("a 200"));
}

TEST_F(TheSimulatedContext, MayBeDestroyedByAHandlerThatWasAbandoned) {
    session->sendHeadRequest("/", [this](const HttpResponse& response) {
        context.reset();
        session.reset();
        note("head")(response);
    });
    put("/", note("never"));
    session->abandon();
    world.settle();
    EXPECT_THAT(outcomes, ElementsAre("head ABANDONED"));
}

TEST_F(TheSimulatedContext, MayBeDestroyedByTheDestructorOfADroppedHandler) {
    auto owner = std::make_shared<OrvClientCommunicationContext>();
    OrvClientCommunicationContext& owned = *owner;
    const std::weak_ptr<OrvClientCommunicationContext> alive = owner;
    owned.init();
    auto owning = owned.getClientHttpFactory().createSession("h", 1, {}, owned.getHealthCheck(),
                                                             owned.getClientStatistics());
    owning->sendHeadRequest("/", [keep = std::move(owner)](const HttpResponse&) {});
    owning->sendHeadRequest("/", note("never"));
    owning.reset();
    owned.deinit();
    EXPECT_TRUE(alive.expired());
    EXPECT_EQ(world.outstandingRequests(), 0U);
}

TEST_F(AnAbandonedHead, IsTheOneThatIsOutstandingLongest) {
    put("/put", note("put"));
    session->sendHeadRequest("/a", note("a"));
    session->sendHeadRequest("/b", note("b"));
    session->sendDeleteRequest("/delete", "", note("delete"));
    session->abandon();
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("a ABANDONED"));
    EXPECT_EQ(world.outstandingRequests(), 3U);
    session->abandon();
    session->abandon();
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("a ABANDONED", "b ABANDONED"));
    EXPECT_EQ(world.outstandingRequests(), 2U);
}

TEST_F(AnAbandonedHead, IsNeverOneThatWasAnswered) {
    session->sendHeadRequest("/a", note("a"));
    session->sendHeadRequest("/b", note("b"));
    take().answer(200);
    session->abandon();
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("a 200", "b ABANDONED"));
}

TEST_F(AnAbandonedHead, IsNeverOneOfAnotherSession) {
    const auto other = makeSession(9000);
    other->sendHeadRequest("/a", note("a"));
    session->abandon();
    world.runIo();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(world.outstandingRequests(), 1U);
}

TEST_F(AnAbandonedHead, IsNotOutstandingAnyMoreAndNotCalledBeforeTheIoThreadRuns) {
    session->sendHeadRequest("/a", note("a"));
    Request request = take();
    session->abandon();
    EXPECT_FALSE(request.isOutstanding());
    EXPECT_EQ(world.outstandingRequests(), 0U);
    request.answer(200);
    EXPECT_THAT(outcomes, IsEmpty());
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("a ABANDONED"));
}

TEST_F(AnAbandonedHead, KeepsItsHandlerUntilItWasCalled) {
    std::vector<std::string> destroyedOn;
    session->sendHeadRequest(
        "/a", [this, end = atEnd([&] { destroyedOn.push_back(world.currentThread()); })](
                  const HttpResponse& response) { note("a")(response); });
    session->abandon();
    EXPECT_THAT(destroyedOn, IsEmpty());
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("a ABANDONED"));
    EXPECT_THAT(destroyedOn, ElementsAre("ORVX_HttpIO"));
}

TEST_F(AnAbandonedHead, IsCountedAndSaysNothingOfTheServersHealth) {
    session->sendHeadRequest("/a", nullptr);
    session->abandon();
    EXPECT_EQ(context->getClientStatistics()->snapshot().completed, 0U);
    world.runIo();
    const auto counted = context->getClientStatistics()->snapshot();
    EXPECT_EQ(counted.byStatus.at(CommunicationStatus::Abandoned), 1U);
    EXPECT_EQ(context->getHealthCheck()->consecutiveFailures(), 0U);
}

TEST_F(AnAbandonedHead, MayThrowInItsHandler) {
    session->sendHeadRequest("/a",
                             [](const HttpResponse&) { throw std::runtime_error("it broke"); });
    session->sendHeadRequest("/b", note("b"));
    session->abandon();
    session->abandon();
    EXPECT_NO_THROW(world.runIo());
    EXPECT_THAT(outcomes, ElementsAre("b ABANDONED"));
}

TEST_F(TheUnavailableSession, AnswersEachRequestOnTheIoThread) {
    const auto unavailable = context->getUnavailableSession();
    unavailable->sendPutRequestJson("/", "{}", 2, note("put"));
    unavailable->sendHeadRequest("/", note("head"));
    unavailable->sendDeleteRequest("/", "", note("delete"));
    unavailable->abandon();
    EXPECT_THAT(outcomes, IsEmpty()) << "never before the send returns";
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("put NO_SESSION", "head NO_SESSION", "delete NO_SESSION"));
}

TEST_F(TheUnavailableSession, SendsNothing) {
    context->getUnavailableSession()->sendHeadRequest("/", note("head"));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_EQ(world.outstandingRequests(), 0U);
    EXPECT_EQ(world.sessions().size(), 1U) << "the fixture's";
}

TEST_F(TheUnavailableSession, CountsItsRequestsAndSaysNothingOfTheServersHealth) {
    context->getUnavailableSession()->sendHeadRequest("/", nullptr);
    world.runIo();
    EXPECT_EQ(context->getHealthCheck()->consecutiveFailures(), 0U);
    const auto counted = context->getClientStatistics()->snapshot();
    EXPECT_EQ(counted.byStatus.at(CommunicationStatus::NoSession), 1U);
}

TEST_F(TheUnavailableSession, DropsRequestsWhileTheContextIsNotInitialised) {
    const auto unavailable = context->getUnavailableSession();
    context->deinit();
    unavailable->sendHeadRequest("/", note("never"));
    context->init();
    world.runIo();
    EXPECT_THAT(outcomes, IsEmpty());
    unavailable->sendHeadRequest("/", note("head"));
    world.runIo();
    EXPECT_THAT(outcomes, ElementsAre("head NO_SESSION"));
}

}  // namespace
}  // namespace orvx::simulation
