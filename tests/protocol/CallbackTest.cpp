// Callbacks and listeners that call operations, throw, block or stop the client.
//
// Threads: the test's, the client's and the server's. A recorder holds a callback in the middle of
// its work, and releases it.

#include "ProtocolTest.h"

#include <algorithm>
#include <future>
#include <stdexcept>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ACallback : public ProtocolTest {};

TEST_F(ACallback, ThatThrowsHarmsNothing) {
    start();
    client().registerServiceAtRegistry(registry(), service("lamp"), [](const auto&) {
        throw std::runtime_error("thrown by a callback");
    });
    client().registerServiceAtRegistry(registry(), service("door"), [](const auto&) { throw 1; });
    expectItWorks();
    EXPECT_THAT(notifications->take(3),
                UnorderedElementsAre("lamp is there", "door is there", "service-1 is there"));
}

TEST_F(ACallback, ThatBlocksDelaysTheOthersButNoRequest) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    start();
    Recorder goOn;
    client().registerServiceAtRegistry(registry(), service("lamp"), [this, &goOn](const auto&) {
        outcomes->add("runs");
        goOn.next();
        outcomes->add("goes on");
    });
    ASSERT_EQ(outcomes->next(), "runs");
    registerService("behind");
    expectRequest("HEAD /uuid-behind");
    EXPECT_THAT(outcomes->rest(), IsEmpty());
    goOn.add("");
    EXPECT_THAT(outcomes->take(2), ElementsAre("goes on", kRegistered));
}

TEST_F(ACallback, MayCallTheClient) {
    start();
    server.nextRequest(created("/uuid-first"));
    server.nextRequest(Script().waitForRelease("answer").send(created("/uuid-second")));
    server.nextRequest(Script().waitForRelease("deletion").send(response(200)));
    client().registerServiceAtRegistry(registry(), service("first"), [this](const auto& outcome) {
        record("first")(outcome);
        registerService("second", "second");
        client().addServiceRegisterStatusListener({});
        client().unregisterAllServicesFromRegistry([this](const auto& gone, const auto& answer) {
            record(gone->getName() + " withdrawn")(answer);
        });
    });
    EXPECT_THAT(outcomes->take(2),
                ElementsAre("first: " + kRegistered, "second withdrawn: ERROR/SERVICE_NOT_FOUND"));
    server.release("deletion");
    EXPECT_EQ(outcomes->next(), "first withdrawn: " + kWithdrawn);
    server.release("answer");
    EXPECT_EQ(outcomes->next(), "second: " + kRegistered);
    expectItWorks();
}

TEST_F(ACallback, MayWithdrawTheReportedService) {
    start();
    auto handle = std::make_shared<Handle>();
    const auto isThere = std::make_shared<Recorder>();
    *handle = client().registerServiceAtRegistry(registry(), service("lamp"),
                                                 [this, handle, isThere](const auto&) {
                                                     isThere->next();
                                                     (*handle)(record("withdrawn"));
                                                     *handle = {};
                                                 });
    isThere->add("");
    EXPECT_EQ(outcomes->next(), "withdrawn: " + kWithdrawn);
    expectNotifications({"lamp is there", "lamp is gone"});
}

TEST_F(ACallback, MayReplaceTheListenerFromInsideIt) {
    start();
    client().addServiceRegisterStatusListener([this](const auto&, bool) {
        notifications->add("old");
        client().addServiceRegisterStatusListener(
            [notifications = notifications](const auto&, bool) { notifications->add("new"); });
    });
    registered("lamp");
    EXPECT_EQ(notifications->next(), "old");
    registered("door");
    EXPECT_EQ(notifications->next(), "new");
}

TEST_F(ACallback, MayKeepTheDescriptionAndReadItWhileItChanges) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.onRequest([](const Request& request) {
        return request.method == "HEAD" ? Script(response(404)) : obey(request);
    });
    start();
    std::promise<std::shared_ptr<const common::ServiceModel>> kept;
    client().addServiceRegisterStatusListener(
        [&kept, isFirst = true](const auto& model, bool) mutable {
            if (std::exchange(isFirst, false)) {
                kept.set_value(model);
            }
        });
    registered("lamp");
    const auto model = kept.get_future().get();
    do {
        EXPECT_THAT(model->getId(), AnyOf("", "uuid-lamp"));
        EXPECT_THAT(model->getUri(), AnyOf("", "/uuid-lamp"));
        EXPECT_EQ(model->getName(), "lamp");
    } while (server.counters().requests < 200);
    stop();
}

TEST_F(ACallback, OfAFailureComesOnceHoweverManyRetriesItTook) {
    context->enableRetry(true);
    context->setInitialMaxRetryCount(3);
    context->setRetryInterval(milliseconds(1));
    http.requestTimeout = kShort;
    start();
    const std::vector<Script> answers{Script("HTTP/1.1 201").close(), "garbage\r\n\r\n",
                                      Script().silence(), Script("HTTP/1.1 201 x\r\n").reset()};
    for (const Script& answer : answers) {
        server.nextRequest(answer);
    }
    EXPECT_EQ(outcome(), refused("CUT_SHORT"));
    server.nextRequest(answers[0]);
    server.nextRequest(answers[1]);
    EXPECT_EQ(outcome(), kRegistered);
    EXPECT_EQ(server.counters().requests, 7U);
    expectItWorks();
}

TEST_F(ACallback, OfOneClientIsNothingToAnother) {
    OrvServiceRegistryContext other;
    const auto otherLog = std::make_shared<testing::RecordingLoggerFactory>();
    other.setLoggerFactory(otherLog);
    other.enableCheck(false);
    start();
    other.init();
    const Handle handle = registered("lamp");
    other.getServiceRegistryClient()->registerServiceAtRegistry(registry(), service("lamp"),
                                                                record("other"));
    EXPECT_EQ(outcomes->next(), "other: " + kRegistered);
    EXPECT_EQ(server.counters().connections, 2U);
    other.deinit();
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    expectItWorks();
    other.init();
    EXPECT_EQ(describe(other.getServiceRegistryClient()
                           ->registerServiceAtRegistry(registry(), service("lamp"))
                           .response),
              kRegistered);
    EXPECT_THAT(otherLog->takeLines(), IsEmpty());
}

TEST_F(ACallback, IsCalledForEachServiceOfASet) {
    start();
    IOrvServiceRegistryClient::ServiceSet services;
    for (int i = 0; i < 100; ++i) {
        services.insert(service("service-" + std::to_string(i)));
    }
    for (const auto& answer : {std::string("HTTP/1.1 201"), response(500)}) {
        server.nextRequest(Script(answer).close());
    }
    const auto [allSucceeded, answers] = client().registerServicesAtRegistry(registry(), services);
    EXPECT_FALSE(allSucceeded);
    EXPECT_EQ(answers.size(), 100U);
    EXPECT_EQ(std::count_if(answers.begin(), answers.end(),
                            [](const auto& answer) {
                                return describe(answer.second.response) == kRegistered;
                            }),
              98);
    const auto [allWithdrawn, withdrawals] = client().unregisterAllServicesFromRegistry();
    EXPECT_TRUE(allWithdrawn);
    EXPECT_EQ(withdrawals.size(), 98U);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
