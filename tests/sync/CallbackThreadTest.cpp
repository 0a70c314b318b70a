// Blocking calls that the real callback thread answers, and blocking calls made on that thread.
// Threads: the test's and the client's three.
#include "SyncTest.h"

#include "Loopback.h"

namespace orvx::serviceregistryclient {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The status and the error code as one text.
std::string text(const Response& response) {
    return std::string(Response::statusString(response.status)) + "/" +
           Response::errorCodeString(response.errorCode);
}

class TheCallbackThread : public SyncTest {};

TEST_F(TheCallbackThread, AnswersABlockingRegistrationAndItsWithdrawal) {
    start();
    const auto result = client().registerServiceAtRegistry(registry, service());
    EXPECT_EQ(text(result.response), "ERROR/SERVICE_NAME_MISSING");
    EXPECT_EQ(text(result.unregister()), "OK/NONE");
    EXPECT_EQ(text(result.unregister()), "OK/NONE");
}

TEST_F(TheCallbackThread, AnswersABlockingRegistrationOfManyServices) {
    start();
    const ServiceSet services = makeServices(100);
    const auto result = client().registerServicesAtRegistry(registry, services);
    EXPECT_FALSE(result.first);
    EXPECT_EQ(result.second.size(), 100U);
    for (const auto& [model, entry] : result.second) {
        EXPECT_EQ(services.count(std::static_pointer_cast<common::ServiceCreate>(model)), 1U);
        EXPECT_EQ(text(entry.response), "ERROR/SERVICE_NAME_MISSING");
        EXPECT_EQ(text(entry.unregister()), "OK/NONE");
    }
}

TEST_F(TheCallbackThread, AnswersABlockingWithdrawalOfEverything) {
    context.setRetryInterval(std::chrono::hours(1));
    start();
    const testing::RefusedPort refused;
    const common::ServiceInfo unreachable("registry", "127.0.0.1", refused.port());
    for (int count = 0; count < 20; ++count) {
        client().registerServiceAtRegistry(unreachable, service("echo"), {});
    }
    const auto [allSucceeded, responses] = client().unregisterAllServicesFromRegistry();
    EXPECT_FALSE(allSucceeded);
    EXPECT_EQ(responses.size(), 20U);
    for (const auto& [model, response] : responses) {
        EXPECT_EQ(text(response), "ERROR/SERVICE_NOT_FOUND");
    }
}

TEST_F(TheCallbackThread, CannotAnswerAWithdrawalThatBlocksIt) {
    context.setSyncCallUnregisterTimeout(milliseconds(100));
    start();
    const auto result = client().registerServiceAtRegistry(registry, service());
    std::promise<std::string> outcome;
    const auto begin = steady_clock::now();
    onCallbackThread([&] { outcome.set_value(text(result.unregister())); });
    EXPECT_EQ(outcome.get_future().get(), "ERROR/TIMEOUT");
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
    EXPECT_EQ(text(result.unregister()), "OK/NONE") << "the late answer was absorbed";
}

TEST_F(TheCallbackThread, CannotAnswerAWithdrawalOfEverythingThatBlocksIt) {
    context.setSyncCallUnregisterTimeout(milliseconds(100));
    context.setRetryInterval(std::chrono::hours(1));
    start();
    const testing::RefusedPort refused;
    client().registerServiceAtRegistry({"registry", "127.0.0.1", refused.port()}, service("echo"),
                                       {});
    std::promise<std::size_t> answers;
    onCallbackThread(
        [&] { answers.set_value(client().unregisterAllServicesFromRegistry().second.size()); });
    EXPECT_EQ(answers.get_future().get(), 0U);
    EXPECT_EQ(client().unregisterAllServicesFromRegistry().second.size(), 1U);
}

TEST_F(TheCallbackThread, SurvivesASecondAnswerToABlockingCall) {
    start();
    client().onRegister = [&](const auto&, const auto&, const ResponseCallback& callback) {
        for (int answers = 0; answers < 2; ++answers) {
            onCallbackThread([callback] { callback(ok); });
        }
        return Handle();
    };
    for (int round = 0; round < 3; ++round) {
        const auto result = client().registerServiceAtRegistry(registry, service());
        EXPECT_EQ(text(result.response), "OK/NONE");
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
