// One HTTP session for each registry endpoint, and endpoints for which none can be made.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using simulation::World;
using ::testing::ElementsAre;
using testing::error;
using testing::info;
using ::testing::IsEmpty;
using testing::warning;
using namespace std::chrono_literals;

class Sessions : public ClientTest {
  protected:
    void registerAt(const common::ServiceInfo& endpoint) {
        client().registerServiceAtRegistry(endpoint, service("echo"), record("echo"));
    }
    /// Makes each later attempt to create a session fail, and counts the attempts.
    void refuseSessions() {
        world.setHook([this](World::Step step) {
            if (step == World::Step::MakeSession) {
                ++attempts;
                throw std::runtime_error("no session");
            }
        });
    }
    static testing::LogLine noSessionLine() {
        return error("no session can be made for service registry 127.0.0.1:8500");
    }
    static testing::LogLine unsentLine() {
        return warning(
            "response put request was not ok, communication status=NO_SESSION, "
            "status=0");
    }

    int attempts = 0;
};

TEST_F(Sessions, AreSharedByAllRequestsToAnEndpoint) {
    start();
    const Handle handle = registered("first", "abc");
    registerService("second");
    next("PUT");
    loseEntry();
    next("PUT").answer(201, location("/def"));
    handle({});
    next("DELETE");
    EXPECT_EQ(world.sessions().size(), 1U);
    EXPECT_EQ(statusOf(1).endpoint, "127.0.0.1:8500");
}

TEST_F(Sessions, AreSharedByEndpointsWithOneKeyAndTheFirstOneMakesThem) {
    start();
    registerAt({"first", "Registry", 8500});
    registerAt({"second", "rEGISTRY", 8500, "prefix", common::ServiceVersion("2")});
    EXPECT_EQ(next("PUT").host(), "Registry");
    EXPECT_EQ(next("PUT").host(), "Registry");
    EXPECT_EQ(world.sessions().size(), 1U);
    EXPECT_EQ(statusOf(1).endpoint, "registry:8500");
    EXPECT_EQ(statusOf(2).endpoint, "registry:8500");
}

TEST_F(Sessions, AreMadeOncePerEndpoint) {
    start();
    registerAt({"registry", "north", 8500});
    registerAt({"registry", "north", 65535});
    registerAt({"registry", "south", 8500});
    ASSERT_EQ(world.sessions().size(), 3U);
    for (const simulation::World::Session& session : world.sessions()) {
        const simulation::Request put = next("PUT");
        EXPECT_EQ(put.host(), session.host);
        EXPECT_EQ(put.port(), session.port);
    }
    EXPECT_EQ(world.sessions()[1].port, 65535);
    registerAt({"", "north", 8500});
    registerAt({"", "south", 8500});
    EXPECT_EQ(next("PUT").host(), "north");
    EXPECT_EQ(next("PUT").host(), "south");
    EXPECT_EQ(world.sessions().size(), 3U) << "the name of the registry does not matter";
}

TEST_F(Sessions, ReportToTheHealthCheckAndTheStatisticsOfTheClient) {
    communication::HttpConfig http;
    http.statistics = std::make_shared<communication::ClientStatistics>();
    context.setHttpConfig(http);
    start();
    registerService("echo");
    simulation::Request put = next("PUT");
    put.answer(communication::HttpResponse(CommunicationStatus::TimedOut));
    EXPECT_EQ(access().healthCheck()->consecutiveFailures(), 1U);
    EXPECT_EQ(http.statistics->snapshot().completed, 1U);
}

TEST_F(Sessions, AreKeptAcrossDeinitAndInit) {
    start();
    registered("echo", "abc");
    client().deinit();
    client().init();
    registerService("other");
    EXPECT_EQ(next("PUT").path(), "/other");
    EXPECT_EQ(world.sessions().size(), 1U);
}

TEST_F(Sessions, ThatCannotBeMadeAreKeptAsEmptyAndNotTriedAgain) {
    start();
    refuseSessions();
    EXPECT_THROW(access().session(registry), std::runtime_error);
    EXPECT_EQ(access().session(registry), nullptr);
    world.setHook({});
    EXPECT_EQ(access().session({"other", "127.0.0.1", 8500}), nullptr);
    EXPECT_EQ(attempts, 1);
    EXPECT_NE(access().session({"registry", "127.0.0.1", 8501}), nullptr);
}

TEST_F(Sessions, ThatCannotBeMadeAnswerARegistrationWithTheErrorAtOnce) {
    for (const auto retries : {std::uint16_t{0}, std::uint16_t{1}}) {
        context.setInitialMaxRetryCount(retries);
        start();
        refuseSessions();
        registerService("echo");
        EXPECT_THAT(log->takeLines(), ElementsAre(noSessionLine()));
        world.runIo();
        EXPECT_THAT(log->takeLines(), ElementsAre(unsentLine()));
        EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
        world.settle();
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"echo", "ERROR", "SERVICE_REGISTRY_ERROR", 0}));
        EXPECT_THAT(registrationIds(), IsEmpty());
        context.deinit();
    }
}

TEST_F(Sessions, ThatCannotBeMadeAnswerEveryRegistrationAndAreLoggedOnce) {
    start();
    refuseSessions();
    const Handle handle = registerService("first");
    world.settle();
    world.setHook({});
    log->takeLines();
    registerService("second");
    world.settle();
    EXPECT_THAT(log->takeLines(), ElementsAre(unsentLine()));
    handle(record("withdrawal"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "ERROR", "SERVICE_REGISTRY_ERROR", 0},
                                            Outcome{"second", "ERROR", "SERVICE_REGISTRY_ERROR", 0},
                                            Outcome{"withdrawal", "OK", "NONE", -1}));
    EXPECT_EQ(attempts, 1);
}

TEST_F(Sessions, AreNotMadeForEndpointsThatCannotBe) {
    start();
    std::vector<std::string> keys;
    for (const auto& [host, port] :
         {std::pair("registry", 0), std::pair("https://registry", 443)}) {
        registerAt({"registry", host, static_cast<std::uint16_t>(port)});
        keys.push_back(statusOf(registrationIds().back()).endpoint);
        world.settle();
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"echo", "ERROR", "SERVICE_REGISTRY_ERROR", 0}));
    }
    EXPECT_THAT(keys, ElementsAre("registry:0", "[https://registry]:443"));
    EXPECT_THAT(world.sessions(), IsEmpty());
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

// A failure with NO_SESSION that the transport reports is handled like any other failure.
TEST_F(Sessions, ThatWereMadeLeaveEachFailureToBeRetried) {
    start();
    registerService("echo");
    next("PUT").answer(communication::HttpResponse(CommunicationStatus::NoSession));
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(::testing::Le(500ms)));
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(Sessions, ThatCannotBeMadeFailThePutOfALostServiceLikeAnyOther) {
    start();
    refuseSessions();
    registerService("echo");
    access().handlePut(1, request(1), answer(201, location("/abc")));
    world.settle();
    world.takeAddedDelays();
    log->takeLines();
    access().handleHead(1, request(1), answer(404));
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty()) << "not while that answer is handled";
    world.runIo();
    EXPECT_THAT(log->takeLines(), ElementsAre(info("automatic re-register with request: /echo"),
                                              info("re-register request: /echo")));
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(10000ms));
    EXPECT_EQ(stateOf(1), State::Lost);
    EXPECT_EQ(attempts, 1);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
