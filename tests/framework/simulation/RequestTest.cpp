// Requests: the properties that a test sees, and the effect of its answers.

#include "SimulatedNetwork.h"

namespace orvx::simulation {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

using ARequest = SimulatedNetwork;

TEST_F(ARequest, ShowsWhatWasPut) {
    session->sendPutRequest("/echo", "text/plain", "text/html", "body and more", 4, nullptr);
    const Request request = take();
    EXPECT_EQ(request.method(), "PUT");
    EXPECT_EQ(request.path(), "/echo");
    EXPECT_EQ(request.contentType(), "text/plain");
    EXPECT_EQ(request.accept(), "text/html");
    EXPECT_EQ(request.body(), "body");
    EXPECT_EQ(request.host(), "registry");
    EXPECT_EQ(request.port(), 8500);
    EXPECT_TRUE(request.isOutstanding());
}

TEST_F(ARequest, ShowsAHeadAndADelete) {
    session->sendHeadRequest("/entries/1", nullptr);
    session->sendDeleteRequest("/entries/2", "application/json", nullptr);
    const Request head = take();
    EXPECT_EQ(head.method() + head.path() + head.contentType() + head.accept() + head.body(),
              "HEAD/entries/1");
    const Request withdrawal = take();
    EXPECT_EQ(withdrawal.method() + withdrawal.path(), "DELETE/entries/2");
    EXPECT_EQ(withdrawal.contentType(), "application/json");
    EXPECT_EQ(withdrawal.accept() + withdrawal.body(), "");
}

TEST_F(ARequest, HasAPathThatBeginsWithASlash) {
    session->sendHeadRequest("entries/1", nullptr);
    session->sendHeadRequest("", nullptr);
    EXPECT_EQ(take().path(), "/entries/1");
    EXPECT_EQ(take().path(), "/");
}

TEST_F(ARequest, HasACopyOfTheBodyOfTheTimeWhenItWasSent) {
    std::string content = "before";
    session->sendPutRequestJson("/echo", content.data(), content.size(), nullptr);
    content = "after!";
    EXPECT_EQ(take().body(), "before");
}

TEST_F(ARequest, IsTakenOnceInTheOrderOfSending) {
    const auto other = makeSession(9000);
    put("/a", nullptr);
    other->sendHeadRequest("/b", nullptr);
    put("/c", nullptr);
    EXPECT_EQ(world.requestsToTake(), 3U);
    EXPECT_EQ(take().path(), "/a");
    EXPECT_EQ(take().path(), "/b");
    EXPECT_EQ(take().path(), "/c");
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_FALSE(world.takeRequest());
    EXPECT_EQ(world.outstandingRequests(), 3U);
}

TEST_F(ARequest, GivesItsAnswerToTheHandlerAtOnce) {
    put("/echo", [this](const HttpResponse& response) {
        note("put")(response);
        EXPECT_EQ(response.getLocation(), "/entries/1");
        EXPECT_EQ(response.getBody(), "body");
    });
    Request request = take();
    request.answer(201, "Location: /entries/1\r\n", "body");
    EXPECT_THAT(outcomes, ElementsAre("put 201"));
    EXPECT_FALSE(request.isOutstanding());
    EXPECT_EQ(world.outstandingRequests(), 0U);
    EXPECT_EQ(world.currentThread(), "");
}

TEST_F(ARequest, MayFail) {
    put("/echo", note("put"));
    take().answer(HttpResponse(CommunicationStatus::ConnectFailed));
    EXPECT_THAT(outcomes, ElementsAre("put CONNECT_FAILED"));
}

TEST_F(ARequest, MayBeAnsweredOutOfTurn) {
    put("/a", note("a"));
    put("/b", note("b"));
    Request first = take();
    take().answer(200);
    first.answer(200);
    EXPECT_THAT(outcomes, ElementsAre("b 200", "a 200"));
}

TEST_F(ARequest, IsAnsweredOnceWhateverItsCopiesSay) {
    put("/echo", note("put"));
    Request request = take();
    Request copy = request;
    request.answer(201);
    EXPECT_FALSE(copy.isOutstanding());
    copy.answer(500);
    request.answer(500);
    EXPECT_THAT(outcomes, ElementsAre("put 201"));
}

TEST_F(ARequest, IsNotOutstandingInsideItsHandler) {
    std::optional<Request> request;
    put("/echo", [&](const HttpResponse& response) {
        EXPECT_FALSE(request->isOutstanding());
        request->answer(500);
        note("put")(response);
    });
    request = take();
    request->answer(201);
    EXPECT_THAT(outcomes, ElementsAre("put 201"));
}

TEST_F(ARequest, DropsWhatItsHandlerThrows) {
    put("/a", [](const HttpResponse&) { throw std::runtime_error("it broke"); });
    put("/b", [](const HttpResponse&) { throw 1; });
    put("/c", nullptr);
    EXPECT_NO_THROW(take().answer(200));
    EXPECT_NO_THROW(take().answer(200));
    EXPECT_NO_THROW(take().answer(200));
    EXPECT_EQ(world.currentThread(), "");
}

TEST_F(ARequest, KeepsItsHandlerUntilItIsThroughAndDestroysItOnTheIoThread) {
    std::string destroyedOn = "nowhere";
    const auto content = std::make_shared<const std::string>("{}");
    const std::weak_ptr<const std::string> alive = content;
    session->sendPutRequestJson("/echo", content->data(), content->size(),
                                [&destroyedOn, alive, keep = content,
                                 end = atEnd([&] { destroyedOn = world.currentThread(); })](
                                    const HttpResponse&) { EXPECT_EQ(destroyedOn, "nowhere"); });
    Request request = take();
    EXPECT_EQ(destroyedOn, "nowhere");
    request.answer(201);
    EXPECT_EQ(destroyedOn, "ORVX_HttpIO");
    EXPECT_EQ(content.use_count(), 1);
}

TEST_F(ARequest, MayBeSentFromInsideAHandler) {
    put("/a", [this](const HttpResponse&) { put("/b", note("b")); });
    take().answer(200);
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("b 200"));
}

TEST_F(ARequest, MayBeAnsweredFromInsideAnotherHandler) {
    put("/b", note("b"));
    Request other = take();
    put("/a", [&](const HttpResponse& response) {
        other.answer(200);
        note("a")(response);
    });
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("b 200", "a 200"));
    EXPECT_EQ(world.currentThread(), "");
}

TEST_F(ARequest, OutlivesItsSession) {
    put("/echo", note("put"));
    session.reset();
    take().answer(200);
    EXPECT_THAT(outcomes, ElementsAre("put 200"));
}

TEST_F(ARequest, MayHaveAHandlerThatDestroysAllAroundIt) {
    put("/a", note("never"));
    std::optional<Request> request;
    put("/b", [&](const HttpResponse& response) {
        context.reset();
        session.reset();
        request.reset();
        note("b")(response);
    });
    take();
    request = take();
    request->answer(200);
    EXPECT_THAT(outcomes, ElementsAre("b 200"));
    EXPECT_EQ(world.outstandingRequests(), 0U);
}

TEST_F(ARequest, IsCountedByStatisticsAndHealthCheckOfItsSession) {
    put("/a", nullptr);
    put("/b", nullptr);
    world.advance(30ms);
    take().answer(201);
    EXPECT_EQ(context->getHealthCheck()->consecutiveFailures(), 0U);
    take().answer(HttpResponse(CommunicationStatus::TimedOut));
    EXPECT_NE(context->getHealthCheck()->consecutiveFailures(), 0U);
    const auto counted = context->getClientStatistics()->snapshot();
    EXPECT_EQ(counted.completed, 2U);
    EXPECT_EQ(counted.byStatus.at(CommunicationStatus::Ok), 1U);
    EXPECT_EQ(counted.byStatus.at(CommunicationStatus::TimedOut), 1U);
    EXPECT_EQ(counted.totalLatency, 30ms);
}

TEST_F(ARequest, CostsLittleAmongThousandsOutstanding) {
    constexpr std::size_t count = 50'000;
    std::vector<Request> requests;
    std::size_t answered = 0;
    for (std::size_t i = 0; i < count; ++i) {
        session->sendHeadRequest("/entries", [&](const HttpResponse&) { ++answered; });
        requests.push_back(take());
    }
    // The middle one each time, which is the farthest for a search from either end.
    for (std::size_t i = 0; i < count; ++i) {
        requests[(i + count / 2) % count].answer(200);
    }
    EXPECT_EQ(answered, count);
    EXPECT_EQ(world.outstandingRequests(), 0U);
}

}  // namespace
}  // namespace orvx::simulation
