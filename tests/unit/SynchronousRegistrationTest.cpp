// The blocking registration of one service, and the withdrawal function in its result.
#include "BlockingCall.h"
#include "ClientTest.h"
#include "FunctionFactory.h"
#include "ScriptedClient.h"

namespace orvx::serviceregistryclient {
namespace {

using ResponseCallback = IOrvServiceRegistryClient::ResponseCallback;
using Response = OrvRegistrationResponse;

class SynchronousRegistration : public ClientTest {
  protected:
    SynchronousRegistration() {
        context.setOrvServiceRegistryClientFactory(
            std::make_shared<FunctionFactory>([this](auto loggers, bool withPrefix) {
                return std::make_unique<ScriptedClient>(std::move(loggers), withPrefix, context);
            }));
    }
    ScriptedClient& scripted() {
        return dynamic_cast<ScriptedClient&>(*context.getServiceRegistryClient());
    }
    /// The result of a registration that is answered during the call and returns this handle.
    SyncOrvRegistrationResponse registeredWith(const Handle& handle) {
        scripted().onRegister = [&](const auto&, const auto&, const ResponseCallback& callback) {
            callback({Response::OK, Response::NONE});
            return handle;
        };
        return client().registerServiceAtRegistry(registry, service("echo"));
    }
};

TEST_F(SynchronousRegistration, GoesThroughTheInterface) {
    start();
    const auto echo = service("echo");
    const auto conflict = std::make_shared<communication::HttpResponse>(answer(409));
    int calls = 0;
    scripted().onRegister = [&](const common::ServiceInfo& info, const auto& given,
                                const ResponseCallback& callback) {
        ++calls;
        EXPECT_EQ(info.getKey(), registry.getKey());
        EXPECT_EQ(info.getName(), registry.getName());
        EXPECT_EQ(given, echo);
        Response response(Response::ERROR, Response::SERVICE_REGISTRY_ERROR);
        response.httpResponse = conflict;
        callback(response);
        return Handle();
    };
    const SyncOrvRegistrationResponse result = client().registerServiceAtRegistry(registry, echo);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(outcome("", result.response), (Outcome{"", "ERROR", "SERVICE_REGISTRY_ERROR", 409}));
    EXPECT_EQ(result.response.httpResponse, conflict);
}

TEST_F(SynchronousRegistration, RegistersAndWithdrawsLikeTheAsynchronousOne) {
    start();
    scripted().onRegister = [&](const auto& info, const auto& echo,
                                const ResponseCallback& callback) -> Handle {
        const Handle withdraw = scripted().registerForReal(info, echo, callback);
        next("PUT").answer(201, location("/abc"));
        world.settle();
        return [this, withdraw](const ResponseCallback& done) {
            withdraw(done);
            next("DELETE").answer(200);
            world.settle();
        };
    };
    const auto result = client().registerServiceAtRegistry(registry, service("echo"));
    EXPECT_EQ(outcome("", result.response), (Outcome{"", "OK", "NONE", 201}));
    EXPECT_EQ(outcome("", result.unregister()), (Outcome{"", "OK", "NONE", 200}));
}

TEST_F(SynchronousRegistration, WaitsWithoutLimitWithAnyTimeOuts) {
    context.setSyncCallRegistryTimeout(Milliseconds(-1));
    context.setSyncCallUnregisterTimeout(Milliseconds(-1));
    start();
    std::promise<ResponseCallback> waiting;
    scripted().onRegister = [&](const auto&, const auto&, ResponseCallback callback) {
        waiting.set_value(std::move(callback));
        return Handle();
    };
    testing::BlockingCall<SyncOrvRegistrationResponse> call(
        [this] { return client().registerServiceAtRegistry(registry, service("echo")); });
    const ResponseCallback callback = waiting.get_future().get();
    EXPECT_TRUE(call.isWaiting());
    callback({Response::OK, Response::NONE});
    EXPECT_EQ(call.get().response.status, Response::OK);
    EXPECT_THROW(callback({Response::OK, Response::NONE}), std::future_error);
}

using SynchronousWithdrawal = SynchronousRegistration;

TEST_F(SynchronousWithdrawal, ReturnsTheAnswerOfItsOwnHandle) {
    start();
    const auto gone = std::make_shared<communication::HttpResponse>(answer(410));
    std::function<Response()> withdraw;
    {
        auto result = registeredWith([&](const ResponseCallback& callback) {
            Response response(Response::ERROR, Response::SERVICE_REGISTRY_ERROR);
            response.httpResponse = gone;
            callback(response);
        });
        withdraw = result.unregister;
    }
    for (int round = 0; round < 2; ++round) {
        const Response response = withdraw();
        EXPECT_EQ(outcome("", response), (Outcome{"", "ERROR", "SERVICE_REGISTRY_ERROR", 410}));
        EXPECT_EQ(response.httpResponse, gone);
    }
}

TEST_F(SynchronousWithdrawal, EndsInATimeOutAndAbsorbsTheLateAnswer) {
    context.setSyncCallUnregisterTimeout(Milliseconds(50));
    start();
    ResponseCallback late;
    const auto result = registeredWith([&](ResponseCallback callback) { late = callback; });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(outcome("", result.unregister()), (Outcome{"", "ERROR", "TIMEOUT", -1}));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(50));
    EXPECT_NO_THROW(late({Response::OK, Response::NONE}));
    EXPECT_THROW(late({Response::OK, Response::NONE}), std::future_error);
}

TEST_F(SynchronousWithdrawal, DoesNotWaitWhenTheTimeOutIsNegative) {
    context.setSyncCallUnregisterTimeout(Milliseconds(-1));
    start();
    const auto result = registeredWith([](const ResponseCallback&) {});
    EXPECT_EQ(outcome("", result.unregister()), (Outcome{"", "ERROR", "TIMEOUT", -1}));
}

TEST_F(SynchronousWithdrawal, WaitsWithoutLimitWhenTheTimeOutIsZero) {
    context.setSyncCallUnregisterTimeout(Milliseconds(0));
    start();
    std::promise<ResponseCallback> waiting;
    const auto result =
        registeredWith([&](ResponseCallback callback) { waiting.set_value(std::move(callback)); });
    testing::BlockingCall<Response> call(result.unregister);
    EXPECT_TRUE(call.isWaiting());
    waiting.get_future().get()({Response::OK, Response::NONE});
    EXPECT_EQ(call.get().status, Response::OK);
}

TEST_F(SynchronousWithdrawal, ThrowsWithoutAHandle) {
    start();
    EXPECT_THROW(registeredWith({}).unregister(), std::bad_function_call);
}

TEST(SynchronousResponse, IsAnErrorAndCannotWithdrawUntilItIsSet) {
    const SyncOrvRegistrationResponse unset;
    EXPECT_EQ(unset.response.status, Response::ERROR);
    EXPECT_EQ(unset.response.errorCode, Response::OTHER);
    EXPECT_EQ(unset.response.httpResponse, nullptr);
    EXPECT_FALSE(unset.unregister);
    EXPECT_THROW(unset.unregister(), std::bad_function_call);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
