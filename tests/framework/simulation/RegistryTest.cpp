// The registry of a simulated world, used by a session of a communication context in that world.
// One thread; no lock.

#include "SimulatedNetwork.h"

#include <orvx/simulation/Registry.h>
#include <orvx/utility/QueuedTimer.h>

#include <functional>

namespace orvx::simulation {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TheRegistry : public SimulatedNetwork {
  protected:
    void announce(const std::string& path) {
        put(path, [this](const HttpResponse& response) {
            outcomes.push_back("PUT " + describe(response));
            location = response.getLocation().value_or("");
        });
        registry.settle();
    }
    void head(const std::string& uri) { session->sendHeadRequest(uri, note("HEAD")); }
    void remove(const std::string& uri) {
        session->sendDeleteRequest(uri, "application/json", note("DELETE"));
    }

    Registry registry{world};
    std::string location;
};

TEST_F(TheRegistry, HoldsWhatIsPutUntilItIsDeleted) {
    announce("/echo");
    EXPECT_TRUE(registry.holds("/echo"));
    EXPECT_EQ(registry.description("/echo"), "{}");
    EXPECT_EQ(registry.entries(), 1U);
    head(location);
    remove(location);
    head(location);
    remove(location);
    registry.settle();
    EXPECT_THAT(outcomes,
                ElementsAre("PUT 201", "HEAD 200", "DELETE 200", "HEAD 404", "DELETE 404"));
    EXPECT_FALSE(registry.holds("/echo"));
    EXPECT_EQ(registry.description("/echo"), "");
}

TEST_F(TheRegistry, AnswersAHeadOfItsRoot) {
    head("/");
    registry.fails(HttpResponse(CommunicationStatus::ConnectFailed));
    registry.settle();
    registry.works();
    head("/");
    head("/unknown");
    remove("/");
    registry.settle();
    EXPECT_THAT(outcomes, ElementsAre("HEAD CONNECT_FAILED", "HEAD 200", "HEAD 404", "DELETE 404"));
}

TEST_F(TheRegistry, MakesARepeatedPutOneEntry) {
    announce("/echo");
    const std::string first = location;
    announce("/echo");
    EXPECT_EQ(location, first);
    announce("/other");
    EXPECT_NE(location, first);
    EXPECT_EQ(registry.entries(), 2U);
}

TEST_F(TheRegistry, GivesAnEntryThatItForgotANewLocation) {
    announce("/echo");
    announce("/other");
    const std::string old = location;
    registry.forget("/other");
    EXPECT_TRUE(registry.holds("/echo"));
    EXPECT_FALSE(registry.holds("/other"));
    announce("/other");
    EXPECT_NE(location, old);
    registry.forgetAll();
    EXPECT_EQ(registry.entries(), 0U);
}

TEST_F(TheRegistry, AnswersAsItIsToldWhileItFails) {
    announce("/echo");
    registry.fails(HttpResponse(CommunicationStatus::ConnectFailed));
    remove(location);
    announce("/other");
    registry.works();
    head(location = "/uuid-1");
    registry.settle();
    EXPECT_THAT(outcomes,
                ElementsAre("PUT 201", "DELETE CONNECT_FAILED", "PUT CONNECT_FAILED", "HEAD 200"));
    EXPECT_EQ(registry.entries(), 1U);
}

TEST_F(TheRegistry, FailsTheRequestsOfOneMethodOnly) {
    announce("/echo");
    registry.fails(HttpResponse(HttpResponse::StatusCode::Forbidden, "", ""), "DELETE");
    remove(location);
    head(location);
    registry.settle();
    EXPECT_THAT(outcomes, ElementsAre("PUT 201", "DELETE 403", "HEAD 200"));
}

TEST_F(TheRegistry, AnswersEachRequestAtTheTimeAtWhichItIsSent) {
    utility::QueuedTimer timer;
    timer.start("T");
    std::vector<std::chrono::milliseconds> answers;
    const auto ask = [&] {
        session->sendHeadRequest("/", [&](const HttpResponse&) { answers.push_back(world.now()); });
    };
    timer.addTask(100ms, ask);
    timer.addTask(250ms, ask);
    timer.addTask(301ms, [] { FAIL() << "later than that"; });
    registry.advance(300ms);
    EXPECT_THAT(answers, ElementsAre(100ms, 250ms));
    EXPECT_EQ(world.now(), 300ms);
    EXPECT_EQ(world.nextDelay(), 1ms);
}

TEST_F(TheRegistry, KeepsNothingOfAClientThatEnded) {
    put("/echo", note("PUT"));
    context->deinit();
    registry.settle();
    EXPECT_EQ(registry.entries(), 0U);
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(TheRegistry, DoesNotTurnAClockThatStandsStillForEver) {
    utility::QueuedTimer timer;
    timer.start("T");
    const std::function<void()> again = [&] {
        session->sendHeadRequest("/", [&](const HttpResponse&) { timer.addTask(0ms, again); });
    };
    again();
    EXPECT_THROW(registry.advance(1ms), std::logic_error);
    timer.stop();
}

TEST_F(TheRegistry, TurnsTheClockToTheEndOfTime) {
    constexpr auto kEnd = std::chrono::milliseconds::max();
    registry.advance(1ms);
    registry.advance(kEnd);
    EXPECT_EQ(world.now(), kEnd);
}

TEST_F(TheRegistry, TurnsTheClockNotBackwards) {
    registry.advance(-1ms);
    EXPECT_EQ(world.now(), 0ms);
    EXPECT_EQ(world.nextDelay(), std::nullopt);
}

}  // namespace
}  // namespace orvx::simulation
