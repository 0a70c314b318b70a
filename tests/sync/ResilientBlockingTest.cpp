// With resilience every blocking call ends, on real threads and sockets. Threads: the test's, the
// client's three, the server's.
#include "SyncTest.h"

#include "BlockingCall.h"
#include "HostileServer.h"
#include "ResilientBlockingCall.h"

#include <malloc.h>

#include <algorithm>
#include <future>

namespace orvx::serviceregistryclient {
namespace {

using std::chrono::milliseconds;
using testing::BlockingCall;
using testing::HostileServer;

std::string answerOf(const Response& response) {
    return std::string(Response::statusString(response.status)) + "/" +
           Response::errorCodeString(response.errorCode);
}

class AResilientCall : public ::testing::Test {
  protected:
    AResilientCall() {
        context.enableResilience(true);
        context.setLoggerFactory(log);
        context.enableCheck(false);
        server.onRequest([](const testing::Request& request) {
            return testing::response(request.method == "PUT" ? 201 : 200,
                                     {{"Location", request.target}});
        });
    }

    IOrvServiceRegistryClient& client() { return *context.getServiceRegistryClient(); }
    static ServiceSet named(int count) {
        ServiceSet services;
        while (count-- > 0) {
            services.insert(service("echo-" + std::to_string(count)));
        }
        return services;
    }

    const std::shared_ptr<testing::RecordingLoggerFactory> log =
        std::make_shared<testing::RecordingLoggerFactory>();
    HostileServer server;
    OrvServiceRegistryContext context;
    const common::ServiceInfo registry{"registry", "127.0.0.1", server.port()};
};

TEST_F(AResilientCall, OverNoServicesSucceedsAtOnce) {
    context.init();
    const auto registered = client().registerServicesAtRegistry(registry, {});
    EXPECT_TRUE(registered.first);
    EXPECT_TRUE(registered.second.empty());
    const auto withdrawn = client().unregisterAllServicesFromRegistry();
    EXPECT_TRUE(withdrawn.first);
    EXPECT_TRUE(withdrawn.second.empty());
}

TEST_F(AResilientCall, MayBeOverMoreServicesThanAByteCounts) {
    context.init();
    const auto registered = client().registerServicesAtRegistry(registry, named(300));
    EXPECT_TRUE(registered.first);
    EXPECT_EQ(registered.second.size(), 300U);
    EXPECT_EQ(answerOf(registered.second.begin()->second.unregister()), "OK/NONE");
    const auto withdrawn = client().unregisterAllServicesFromRegistry();
    EXPECT_TRUE(withdrawn.first);
    EXPECT_EQ(withdrawn.second.size(), 299U);
}

TEST_F(AResilientCall, ThatRegistersEndsWithTheRegistryTimeOut) {
    context.setSyncCallRegistryTimeout(milliseconds(50));
    server.stopListening();
    context.init();
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    EXPECT_EQ(answerOf(result.response), "ERROR/TIMEOUT");
    EXPECT_EQ(answerOf(result.unregister()), "OK/NONE") << "nothing came into being";
    const auto results = client().registerServicesAtRegistry(registry, named(2));
    EXPECT_FALSE(results.first);
    ASSERT_EQ(results.second.size(), 2U);
    EXPECT_EQ(answerOf(results.second.begin()->second.response), "ERROR/TIMEOUT");
}

TEST_F(AResilientCall, ThatWithdrawsEndsWithTheUnregisterTimeOut) {
    context.setSyncCallUnregisterTimeout(milliseconds(50));
    context.init();
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    ASSERT_EQ(answerOf(result.response), "OK/NONE");
    server.onRequest([](const testing::Request&) { return testing::response(503); });
    EXPECT_EQ(answerOf(result.unregister()), "ERROR/TIMEOUT");
    const auto all = client().unregisterAllServicesFromRegistry();
    EXPECT_FALSE(all.first);
    EXPECT_EQ(answerOf(all.second.begin()->second), "ERROR/TIMEOUT");
}

TEST_F(AResilientCall, FromACallbackIsAnsweredAtOnceAndLogged) {
    context.setSyncCallRegistryTimeout(milliseconds(0));
    context.setSyncCallUnregisterTimeout(milliseconds(0));
    context.init();
    std::promise<std::vector<std::string>> answers;
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    client().registerServiceAtRegistry(registry, service("other"), [&](const Response&) {
        const auto set = client().registerServicesAtRegistry(registry, named(1));
        const auto all = client().unregisterAllServicesFromRegistry();
        EXPECT_FALSE(set.first);
        EXPECT_FALSE(set.second.begin()->second.unregister) << "there is nothing to withdraw";
        EXPECT_FALSE(all.first);
        EXPECT_TRUE(client().registerServicesAtRegistry(registry, {}).first) << "it does not wait";
        answers.set_value(
            {answerOf(client().registerServiceAtRegistry(registry, service("x")).response),
             answerOf(set.second.begin()->second.response), answerOf(all.second.begin()->second),
             answerOf(result.unregister())});
    });
    for (const std::string& answer : answers.get_future().get()) {
        EXPECT_EQ(answer, "ERROR/OTHER");
    }
    const auto lines = log->takeLines();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(),
                   testing::error("A blocking call from a callback or listener would wait for "
                                  "itself.")),
        4);
}

TEST_F(AResilientCall, EndsWithItsTimeOutWhileACallbackRuns) {
    context.setSyncCallRegistryTimeout(milliseconds(50));
    context.setSyncCallUnregisterTimeout(milliseconds(50));
    context.init();
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    std::promise<void> begun;
    std::promise<void> over;
    client().registerServiceAtRegistry(registry, service("other"), [&](const Response&) {
        begun.set_value();
        over.get_future().wait();
    });
    begun.get_future().wait();
    EXPECT_EQ(answerOf(client().registerServiceAtRegistry(registry, service("x")).response),
              "ERROR/TIMEOUT");
    EXPECT_EQ(answerOf(result.unregister()), "ERROR/TIMEOUT");
    EXPECT_FALSE(client().unregisterAllServicesFromRegistry().first);
    over.set_value();
}

// The end of the other client runs that client's callback inside the callback of this one.
TEST_F(AResilientCall, FromACallbackIsAnsweredAtOnceAlsoWhileItEndsAnotherClient) {
    context.setSyncCallRegistryTimeout(milliseconds(50));
    context.init();
    OrvServiceRegistryContext other;
    other.enableResilience(true);
    other.setLoggerFactory(log);
    other.init();
    const auto call = [&] {
        return answerOf(client().registerServiceAtRegistry(registry, service("x")).response);
    };
    std::vector<std::string> answers;
    server.nextRequest(testing::Script().silence());
    other.getServiceRegistryClient()->registerServiceAtRegistry(
        registry, service("other"), [&](const Response&) { answers.push_back(call()); });
    ASSERT_TRUE(server.waitForRequests(1));
    std::promise<void> isOver;
    client().registerServiceAtRegistry(registry, service("echo"), [&](const Response&) {
        other.deinit();
        answers.push_back(call());
        isOver.set_value();
    });
    isOver.get_future().wait();
    EXPECT_THAT(answers, ::testing::ElementsAre("ERROR/OTHER", "ERROR/OTHER"));
}

// A callback of the same client registers nothing, so nothing is logged there.
TEST_F(AResilientCall, OverNoServicesMayBeMadeFromACallback) {
    context.init();
    std::promise<bool> withdrawn;
    client().registerServiceAtRegistry(registry, service(), [&](const Response&) {
        withdrawn.set_value(client().unregisterAllServicesFromRegistry().first);
    });
    EXPECT_TRUE(withdrawn.get_future().get());
    for (const auto& line : log->takeLines()) {
        EXPECT_EQ(line.text.find("A blocking call"), std::string::npos) << line.text;
    }
}

TEST_F(AResilientCall, EndsWhenTheClientIsStopped) {
    context.setSyncCallRegistryTimeout(milliseconds(0));
    server.stopListening();
    context.init();
    auto& stopped = dynamic_cast<OrvServiceRegistryClient&>(client());
    BlockingCall<std::string> one([&] {
        return answerOf(client().registerServiceAtRegistry(registry, service("echo")).response);
    });
    BlockingCall<bool> many(
        [&] { return client().registerServicesAtRegistry(registry, named(3)).first; });
    ASSERT_TRUE(one.isWaiting());
    ASSERT_TRUE(many.isWaiting());
    stopped.deinit();
    EXPECT_EQ(one.get(), "ERROR/DELEGATOR_NOT_INITIATED");
    EXPECT_FALSE(many.get());
    const auto refused = client().registerServiceAtRegistry(registry, service("echo"));
    EXPECT_EQ(answerOf(refused.response), "ERROR/DELEGATOR_NOT_INITIATED");
    EXPECT_FALSE(refused.unregister) << "there is nothing to withdraw";
}

TEST_F(AResilientCall, ThatWithdrawsEndsWhenTheClientIsStopped) {
    context.setSyncCallUnregisterTimeout(milliseconds(0));
    context.init();
    auto& stopped = dynamic_cast<OrvServiceRegistryClient&>(client());
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    server.onRequest([](const testing::Request&) { return testing::Script().silence(); });
    BlockingCall<std::string> one([&] { return answerOf(result.unregister()); });
    BlockingCall<std::string> all([&] {
        return answerOf(client().unregisterAllServicesFromRegistry().second.begin()->second);
    });
    ASSERT_TRUE(one.isWaiting());
    ASSERT_TRUE(all.isWaiting());
    stopped.deinit();
    EXPECT_EQ(one.get(), "ERROR/DELEGATOR_NOT_INITIATED");
    EXPECT_EQ(all.get(), "ERROR/DELEGATOR_NOT_INITIATED");
}

// A stopped client answers requests at its next start. The call must not wait for that start.
TEST_F(AResilientCall, DuringWhichTheClientIsStoppedEnds) {
    context.setSyncCallRegistryTimeout(milliseconds(0));
    context.setOrvServiceRegistryClientFactory(
        std::make_shared<FunctionFactory>([this](auto loggers, bool withPrefix) {
            auto made = std::make_unique<ScriptedClient>(std::move(loggers), withPrefix, context);
            made->onRegister = [scripted = made.get()](const auto& at, const auto& one,
                                                       ResponseCallback callback) {
                scripted->deinit();
                return scripted->registerForReal(at, one, std::move(callback));
            };
            return made;
        }));
    context.init();
    BlockingCall<std::string> call([&] {
        return answerOf(client().registerServiceAtRegistry(registry, service("echo")).response);
    });
    EXPECT_EQ(call.get(), "ERROR/DELEGATOR_NOT_INITIATED");
}

TEST(ABlockingCallOfAResilientClient, ToWhichAServiceIsAddedAfterTheStopSaysSo) {
    OrvServiceRegistryClient::ResilientUpkeep::BlockingCall call;
    const auto before = service("before");
    const auto after = service("after");
    call.add(before);
    call.end();
    call.add(after);
    for (const auto& [one, response] : call.wait(milliseconds(0))) {
        EXPECT_EQ(answerOf(response), "ERROR/DELEGATOR_NOT_INITIATED") << one->getName();
    }
}

TEST_F(AResilientCall, MayHaveALongerTimeOutThanTheClockCounts) {
    context.setSyncCallRegistryTimeout(milliseconds::max());
    context.setSyncCallUnregisterTimeout(milliseconds::max());
    context.init();
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    EXPECT_EQ(answerOf(result.response), "OK/NONE");
    EXPECT_EQ(answerOf(result.unregister()), "OK/NONE");
}

TEST_F(AResilientCall, LeavesNoMemoryBehind) {
    context.init();
    const auto usedAfter = [this](int calls) {
        while (calls-- > 0) {
            client().registerServiceAtRegistry(registry, service());
        }
        log->takeLines();
        return static_cast<double>(mallinfo2().uordblks);  // zero under the sanitizers
    };
    const double before = usedAfter(200);
    EXPECT_NEAR(usedAfter(2000), before, 100'000);
}

TEST_F(AResilientCall, OverASetFailsWithOneOfItsServices) {
    server.onRequest([](const testing::Request& request) {
        const bool isRefused = request.target == "/bad";
        return testing::response(isRefused                 ? 403
                                 : request.method == "PUT" ? 201
                                                           : 200,
                                 {{"Location", request.target}});
    });
    context.init();
    ServiceSet services = named(2);
    const auto refused = service("bad");
    services.insert(refused);
    const auto registered = client().registerServicesAtRegistry(registry, services);
    EXPECT_FALSE(registered.first);
    for (const auto& [one, result] : registered.second) {
        EXPECT_EQ(answerOf(result.response),
                  one == refused ? "ERROR/SERVICE_REGISTRY_ERROR" : "OK/NONE");
    }
}

TEST_F(AResilientCall, OverAllServicesFailsWithOneOfThem) {
    server.onRequest([](const testing::Request& request) {
        const bool isRefused = request.method == "DELETE" && request.target == "/echo-1";
        return testing::response(isRefused                 ? 403
                                 : request.method == "PUT" ? 201
                                                           : 200,
                                 {{"Location", request.target}});
    });
    context.init();
    ASSERT_TRUE(client().registerServicesAtRegistry(registry, named(3)).first);
    const auto withdrawn = client().unregisterAllServicesFromRegistry();
    EXPECT_FALSE(withdrawn.first);
    EXPECT_EQ(withdrawn.second.size(), 3U);
    for (const auto& [one, response] : withdrawn.second) {
        EXPECT_EQ(answerOf(response),
                  one->getName() == "echo-1" ? "ERROR/SERVICE_REGISTRY_ERROR" : "OK/NONE");
    }
}

TEST_F(AResilientCall, MayWithdrawWhenTheClientIsGone) {
    context.init();
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    context.deinit();
    EXPECT_EQ(answerOf(result.unregister()), "ERROR/DELEGATOR_NOT_INITIATED");
}

/// Runs with resilience and without.
class WithdrawalAtTheEnd : public AResilientCall, public ::testing::WithParamInterface<bool> {
  protected:
    WithdrawalAtTheEnd() { context.enableResilience(GetParam()); }

    std::size_t deletes() const {
        const auto requests = server.requests();
        return static_cast<std::size_t>(
            std::count_if(requests.begin(), requests.end(),
                          [](const auto& request) { return request.method == "DELETE"; }));
    }
    void expectRefusedWithdrawalIsRepeated() {
        context.init();
        client().registerServicesAtRegistry(registry, named(1));
        server.nextRequest(testing::response(503));
        context.deinit();
        EXPECT_EQ(deletes(), 2U);
        EXPECT_TRUE(warnings().empty());
    }
    /// A context of its own, initialised, whose withdrawal at the end may take 200 ms.
    std::unique_ptr<OrvServiceRegistryContext> contextWithALimit() {
        auto own = std::make_unique<OrvServiceRegistryContext>();
        own->enableResilience(GetParam());
        own->setLoggerFactory(log);
        own->enableCheck(false);
        own->setWithdrawAtDeinit(milliseconds(200));
        own->init();
        return own;
    }
    std::vector<std::string> warnings(const std::string& beginning = "not withdrawn") {
        std::vector<std::string> texts;
        for (const auto& line : log->takeLines()) {
            if (line.text.find(beginning) == 0) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }
};

TEST_P(WithdrawalAtTheEnd, IsNotMadeByDefault) {
    context.init();
    client().registerServicesAtRegistry(registry, named(3));
    context.deinit();
    EXPECT_EQ(deletes(), 0U);
    EXPECT_TRUE(warnings().empty());
}

TEST_P(WithdrawalAtTheEnd, WithdrawsEverythingByDeinit) {
    context.setWithdrawAtDeinit(std::chrono::seconds(10));
    context.init();
    client().registerServicesAtRegistry(registry, named(20));
    context.deinit();
    EXPECT_EQ(deletes(), 20U);
    EXPECT_TRUE(warnings().empty());
}

TEST_P(WithdrawalAtTheEnd, MayTakeTheLongestTime) {
    context.setWithdrawAtDeinit(milliseconds::max());
    expectRefusedWithdrawalIsRepeated();
}

TEST_P(WithdrawalAtTheEnd, WithdrawsWhatIsStillUnderWayByTheDestructor) {
    server.nextRequest(testing::Script().waitForRelease("go").send(
        testing::response(201, {{"Location", "/abc"}})));
    {
        OrvServiceRegistryContext own;
        own.enableResilience(GetParam());
        own.setLoggerFactory(log);
        own.setWithdrawAtDeinit(std::chrono::seconds(10));
        own.init();
        own.getServiceRegistryClient()->registerServiceAtRegistry(registry, service("echo"), {});
        ASSERT_TRUE(server.waitForRequests(1));
        server.release("go");
    }
    EXPECT_EQ(deletes(), 1U);
    EXPECT_TRUE(warnings("Trying to unregister").empty());
}

TEST_P(WithdrawalAtTheEnd, IsNotBegunAgainByACallbackOfTheDestructor) {
    server.nextRequest(testing::Script().silence());
    auto own = std::make_unique<OrvServiceRegistryContext>();
    own->enableResilience(GetParam());
    own->setLoggerFactory(log);
    own->init();
    own->getServiceRegistryClient()->registerServiceAtRegistry(
        registry, service("echo"), [context = own.get()](const auto&) { context->deinit(); });
    ASSERT_TRUE(server.waitForRequests(1));
    own.reset();
    EXPECT_EQ(deletes(), 0U);
}

TEST_P(WithdrawalAtTheEnd, IsNotBegunAgainByAListenerThatItCalls) {
    for (const bool isDestructor : {false, true}) {
        SCOPED_TRACE(isDestructor);
        auto own = contextWithALimit();
        own->getServiceRegistryClient()->addServiceRegisterStatusListener(
            [context = own.get()](const auto&, bool isRegistered) {
                isRegistered ? void() : context->deinit();
            });
        own->getServiceRegistryClient()->registerServicesAtRegistry(registry, named(2));
        server.nextRequest(testing::response(200));
        server.nextRequest(testing::Script().silence());
        isDestructor ? own.reset() : own->deinit();
        EXPECT_THAT(warnings(), ::testing::SizeIs(1));
    }
    EXPECT_EQ(deletes(), 4U);
}

TEST_P(WithdrawalAtTheEnd, OfACallbackIsAwaitedByTheDestructor) {
    auto own = contextWithALimit();
    server.nextRequest(testing::response(201, {{"Location", "/echo"}}));
    server.nextRequest(testing::Script().silence());
    own->getServiceRegistryClient()->registerServiceAtRegistry(
        registry, service("echo"), [context = own.get()](const auto&) { context->deinit(); });
    ASSERT_TRUE(server.waitForRequests(2));
    own->deinit();
    own.reset();
    EXPECT_EQ(deletes(), 1U);
    EXPECT_THAT(warnings(), ::testing::SizeIs(1));
}

TEST_P(WithdrawalAtTheEnd, RefusesNewRegistrations) {
    context.setWithdrawAtDeinit(std::chrono::seconds(10));
    context.init();
    std::vector<std::string> answers;
    client().addServiceRegisterStatusListener([&](const auto&, bool isRegistered) {
        if (isRegistered) {
            return;
        }
        client().registerServiceAtRegistry(registry, service("late"), [&](const Response& refusal) {
            answers.push_back(answerOf(refusal));
            server.release("go");
        });
        if (GetParam()) {
            server.release("go");  // the refusal comes after the withdrawal
        }
    });
    client().registerServicesAtRegistry(registry, named(2));
    server.nextRequest(testing::response(200));
    server.nextRequest(testing::Script().waitForRelease("go").send(testing::response(200)));
    context.deinit();
    ASSERT_THAT(answers, ::testing::Not(::testing::IsEmpty()));
    EXPECT_EQ(answers[0], "ERROR/DELEGATOR_NOT_INITIATED");
    for (const auto& request : server.requests()) {
        EXPECT_NE(request.target, "/late") << request.method;
    }
    EXPECT_TRUE(warnings().empty());
}

TEST_P(WithdrawalAtTheEnd, DoesNotSpinIfEachRefusalIsFollowedByARegistration) {
    auto own = contextWithALimit();
    auto& client = *own->getServiceRegistryClient();
    int refusals = 0;
    bool isOver = false;  // the stop that follows refuses every registration at once
    ResponseCallback again;
    again = [&](const Response& response) {
        isOver = isOver || !warnings().empty();
        if (response.status == Response::ERROR && !isOver) {
            ++refusals;
            client.registerServiceAtRegistry(registry, service("again"), again);
        }
    };
    client.addServiceRegisterStatusListener([&](const auto&, bool isRegistered) {
        if (!isRegistered) {
            again(Response(Response::ERROR, Response::OTHER));
        }
    });
    client.registerServicesAtRegistry(registry, named(2));
    server.nextRequest(testing::response(200));
    server.nextRequest(testing::Script().silence());
    const auto begin = std::chrono::steady_clock::now();
    own->deinit();
    const auto pauses = (std::chrono::steady_clock::now() - begin) / milliseconds(50);
    EXPECT_LE(refusals, 2 + pauses);
}

TEST_P(WithdrawalAtTheEnd, RepeatsRefusedWithdrawals) {
    context.setWithdrawAtDeinit(std::chrono::seconds(10));
    expectRefusedWithdrawalIsRepeated();
}

TEST_P(WithdrawalAtTheEnd, RepeatsARefusedWithdrawalOnlyAfterAPauseWhateverOthersDo) {
    HostileServer refusing;
    refusing.onRequest([](const testing::Request& request) {
        return testing::response(request.method == "PUT" ? 201 : 403, {{"Location", "/refused"}});
    });
    server.onRequest([](const testing::Request& request) {
        const std::string answer = testing::response(201, {{"Location", request.target}});
        return request.method == "PUT"
                   ? testing::Script(answer)
                   : testing::Script().pause(milliseconds(2)).send(testing::response(200));
    });
    communication::HttpConfig oneByOne;
    oneByOne.connectionsPerEndpoint = 1;
    context.setHttpConfig(oneByOne);
    context.setWithdrawAtDeinit(milliseconds(300));
    context.init();
    client().registerServiceAtRegistry({"registry", "127.0.0.1", refusing.port()},
                                       service("refused"));
    client().registerServicesAtRegistry(registry, named(200));
    const auto begin = std::chrono::steady_clock::now();
    context.deinit();
    const auto pauses = (std::chrono::steady_clock::now() - begin) / milliseconds(50);
    const std::size_t puts = 1;
    EXPECT_LE(refusing.requests().size() - puts, 2U + static_cast<std::size_t>(pauses));
    EXPECT_GT(deletes(), 0U);
}

TEST_P(WithdrawalAtTheEnd, SendsOneDeleteIfItGetsNoAnswer) {
    context.setWithdrawAtDeinit(milliseconds(2000));
    context.init();
    client().registerServicesAtRegistry(registry, named(2));
    server.onRequest([](const testing::Request&) { return testing::Script().silence(); });
    auto end = std::async(std::launch::async, [this] { context.deinit(); });
    ASSERT_TRUE(server.waitForRequests(4));
    end.get();
    EXPECT_EQ(deletes(), 2U);
    EXPECT_EQ(warnings().size(), 2U);
}

TEST_P(WithdrawalAtTheEnd, NamesServicesThatCouldNotBeWithdrawnInTime) {
    context.setWithdrawAtDeinit(milliseconds(100));
    context.init();
    client().registerServicesAtRegistry(registry, named(2));
    server.onRequest([](const testing::Request&) { return testing::response(503); });
    context.deinit();
    const auto texts = warnings();
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_EQ(texts[0].find("not withdrawn within 100 ms: echo-"), 0U);
}

TEST_P(WithdrawalAtTheEnd, TakesNoTimeWithoutServices) {
    context.setWithdrawAtDeinit(std::chrono::hours(1));
    context.init();
    context.deinit();
}

TEST_F(AResilientCall, IsNotNeededAtTheEndForWhatNeverCameIntoBeing) {
    server.stopListening();
    context.setWithdrawAtDeinit(std::chrono::hours(1));
    std::promise<void> unreachable;
    context.setRegistrationListener(
        [&unreachable, count = 0](const RegistrationEvent& event) mutable {
            count += event.kind == RegistrationEvent::Kind::Unreachable ? 1 : 0;
            count == 2 ? unreachable.set_value() : void();
        });
    context.init();
    // Both registrations share one entry: withdrawing the second one also withdraws the first one.
    std::vector<std::string> answers;
    for (int i = 0; i < 2; ++i) {
        client().registerServiceAtRegistry(
            registry, service("echo"),
            [&](const Response& response) { answers.push_back(answerOf(response)); });
    }
    unreachable.get_future().wait();
    context.deinit();
    EXPECT_THAT(answers, ::testing::ElementsAre("ERROR/OTHER", "ERROR/OTHER"));
}

INSTANTIATE_TEST_SUITE_P(Rules, WithdrawalAtTheEnd, ::testing::Bool(),
                         [](const auto& rules) { return rules.param ? "Resilient" : "Basic"; });

}  // namespace
}  // namespace orvx::serviceregistryclient
