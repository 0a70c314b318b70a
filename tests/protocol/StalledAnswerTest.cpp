// Answers that stop at any byte while the connection stays open: the request time-out ends the
// request. All bytes are tested at the same time, each with its own service and connection, because
// each test takes the whole time-out.
//
// Threads: the test's, the client's and the server's.

#include "RequestKind.h"

#include <algorithm>
#include <map>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Values;

Script found(const Request& request) {
    return request.method == "PUT" ? created(request.target) : response(200);
}

/// As many bytes of the answer as the request's target names.
Script begun(const std::string& answer, const Request& request) {
    return Script(answer.substr(0, std::stoul(request.target.substr(1)))).silence();
}

class AStalledAnswer : public KindTest {
  protected:
    AStalledAnswer() {
        http.requestTimeout = kShort;
        http.connectionsPerEndpoint = 500;
        server.onRequest(found);
    }
    /// Registers one service for each byte of the answer. The number of the byte is the service's
    /// name and uuid.
    std::vector<Handle> registerOneForEachByteOf(const std::string& answer) {
        std::vector<Handle> handles;
        for (std::size_t size = 0; size < answer.size(); ++size) {
            handles.push_back(registerService(std::to_string(size)));
        }
        return handles;
    }
    Recorder::Lines withdraw(const std::vector<Handle>& handles) {
        for (const Handle& handle : handles) {
            handle(record());
        }
        return outcomes->take(handles.size());
    }
};

TEST_F(AStalledAnswer, ToARegistrationEndsWithTheTotalTimeout) {
    const std::string whole = response(201, {{"Location", "/uuid"}}, "{}");
    server.onRequest([whole](const Request& request) { return begun(whole, request); });
    start();
    registerOneForEachByteOf(whole);
    EXPECT_THAT(outcomes->take(whole.size()), Each(refused("TIMED_OUT")));
    EXPECT_TRUE(server.waitForClosed(whole.size()));
    server.onRequest(obey);
    expectItWorks();
    EXPECT_EQ(server.counters().requests, whole.size() + 1);
}

TEST_F(AStalledAnswer, ToAWithdrawalEndsWithTheTotalTimeout) {
    const std::string whole = response(200, {}, "ok");
    start();
    const auto handles = registerOneForEachByteOf(whole);
    EXPECT_THAT(outcomes->take(whole.size()), Each(kRegistered));
    server.onRequest([whole](const Request& request) { return begun(whole, request); });
    EXPECT_THAT(withdraw(handles), Each(refused("TIMED_OUT")));
    server.onRequest(found);
    EXPECT_THAT(withdraw(handles), Each(kWithdrawn));
    EXPECT_EQ(server.counters().requests, 3 * whole.size());
}

TEST_F(AStalledAnswer, ToACheckIsFollowedByTheNextCheck) {
    const std::string lost = response(404);
    const auto checks = std::make_shared<std::map<std::string, int>>();  // the server's thread
    server.onRequest([lost, checks](const Request& request) {
        const int check = request.method == "HEAD" ? ++(*checks)[request.target] : 0;
        return check == 0   ? found(request)
               : check == 1 ? begun(lost, request)
               : check == 2 ? Script(lost)
                            : Script().silence();
    });
    checkAtOnce();
    start();
    registerOneForEachByteOf(lost);
    EXPECT_THAT(outcomes->take(lost.size()), Each(kRegistered));
    EXPECT_THAT(notifications->take(3 * lost.size()), Contains("0 is gone").Times(1));
    for (std::size_t size = 0; size < lost.size(); ++size) {
        const std::string target = " /" + std::to_string(size);
        std::vector<std::string> lines;
        ASSERT_TRUE(eventually([&] {
            lines = requestLines();
            lines.erase(std::remove_if(lines.begin(), lines.end(),
                                       [&](const std::string& line) {
                                           return line.substr(line.find(' ')) != target;
                                       }),
                        lines.end());
            return lines.size() >= 5;
        }));
        lines.resize(5);
        EXPECT_THAT(lines, ElementsAre("PUT" + target, "HEAD" + target, "HEAD" + target,
                                       "PUT" + target, "HEAD" + target));
    }
}

class ASlowAnswer : public KindTest, public ::testing::WithParamInterface<Kind> {};

TEST_P(ASlowAnswer, EndsWithTheTotalTimeoutThoughItComesInAllTheTime) {
    http.requestTimeout = kShort;
    const std::string answer = Decisive(GetParam()).head() + "X: " + std::string(1000, 'x');
    expectFailure(GetParam(), Script().drip(answer, milliseconds(10)), "TIMED_OUT");
}

INSTANTIATE_TEST_SUITE_P(Each, ASlowAnswer,
                         Values(Kind::PutWithARetry, Kind::PutAfterALoss, Kind::Head, Kind::Delete),
                         [](const auto& test) { return "ToA" + nameOf(test.param); });

}  // namespace
}  // namespace orvx::serviceregistryclient
