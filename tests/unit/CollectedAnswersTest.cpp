// How a blocking call over several services collects the answers: their count, its limit, and the
// end of the call. Registrations and withdrawals are collected in the same way.
#include "BlockingCall.h"
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Model = std::shared_ptr<common::ServiceModel>;
using Service = std::shared_ptr<common::ServiceCreate>;
using Response = OrvRegistrationResponse;
using ServiceCallback = IOrvServiceRegistryClient::ServiceCallback;
using ServiceSet = IOrvServiceRegistryClient::ServiceSet;

const Response ok(Response::OK, Response::NONE);
const Response failed(Response::ERROR, Response::SERVICE_REGISTRY_ERROR);

Service service() {
    return std::make_shared<common::ServiceCreate>(
        std::make_unique<common::XObject>("", "service", ""));
}

ServiceSet makeServices(int count) {
    ServiceSet services;
    while (count-- > 0) {
        services.insert(service());
    }
    return services;
}

/// Stores each service and the callback of its registration. Calls `answer` when all registrations
/// have started.
auto answerAtTheEnd(
    std::size_t count,
    std::function<void(const std::vector<Service>&, const ServiceCallback&)> answer) {
    return [count, answer = std::move(answer), started = std::vector<Service>()](
               const Service& one, const ServiceCallback& collect) mutable {
        started.push_back(one);
        if (started.size() == count) {
            answer(started, collect);
        }
    };
}

TEST(CollectedRegistrations, StartEachServiceOnceAndReturnEachAnswer) {
    const ServiceSet services = makeServices(255);
    ServiceSet started;
    const auto [allSucceeded, responses] = ClientTestAccess::collect(
        services, [&](const Service& one, const ServiceCallback& collect) {
            EXPECT_TRUE(started.insert(one).second);
            collect(one, ok);
        });
    EXPECT_TRUE(allSucceeded);
    EXPECT_EQ(started, services);
    EXPECT_EQ(responses.size(), 255U);
    EXPECT_FALSE(responses.begin()->second.unregister);
}

TEST(CollectedRegistrations, LookAtTheStatusOnly) {
    const ServiceSet services = makeServices(2);
    const auto collectWith = [&](const Response& response) {
        return ClientTestAccess::collect(services,
                                         [&](const Service& one, const ServiceCallback& collect) {
                                             collect(one, response);
                                         })
            .first;
    };
    EXPECT_TRUE(collectWith({Response::OK, Response::OTHER}));
    EXPECT_FALSE(collectWith({Response::ERROR, Response::NONE}));
    EXPECT_FALSE(collectWith({static_cast<Response::Status>(2), Response::NONE}));
}

TEST(CollectedRegistrations, StayFailedOnceOneHas) {
    const auto result = ClientTestAccess::collect(
        makeServices(3), answerAtTheEnd(3, [](const auto& started, const auto& collect) {
            collect(started[1], failed);
            collect(started[0], ok);
            collect(started[2], ok);
        }));
    EXPECT_FALSE(result.first);
    EXPECT_EQ(result.second.size(), 3U);
}

TEST(CollectedRegistrations, EndWithTheCountOfAnswersOfAnyServices) {
    Model twice;
    const auto result = ClientTestAccess::collect(
        makeServices(3), answerAtTheEnd(3, [&](const auto& started, const auto& collect) {
            twice = started[0];
            collect(started[0], failed);
            collect(started[0], ok);
            collect(started[2], ok);
        }));
    EXPECT_FALSE(result.first);
    ASSERT_EQ(result.second.size(), 2U);
    EXPECT_EQ(result.second.at(twice).response.status, Response::OK) << "the last answer stays";
}

TEST(CollectedRegistrations, CountInEightBits) {
    ClientTestAccess::collect(
        makeServices(1), [](const Service& one, const ServiceCallback& collect) {
            for (int answers = 0; answers < 256; ++answers) {
                EXPECT_NO_THROW(collect(one, ok));
            }
            EXPECT_THROW(collect(one, ok), std::future_error) << "the count is one again";
        });
}

TEST(CollectedRegistrations, WaitForTheLastAnswerWithoutLimit) {
    const ServiceSet services = makeServices(2);
    std::promise<std::pair<std::vector<Service>, ServiceCallback>> all;
    testing::BlockingCall<bool> call([&] {
        return ClientTestAccess::collect(
                   services, answerAtTheEnd(2,
                                            [&](const auto& started, const auto& collect) {
                                                collect(started[0], ok);
                                                all.set_value({started, collect});
                                            }))
            .first;
    });
    const auto [started, collect] = all.get_future().get();
    EXPECT_TRUE(call.isWaiting());
    collect(started[1], ok);
    EXPECT_TRUE(call.get());
    EXPECT_NO_THROW(collect(started[1], ok)) << "late answers are dropped";
}

TEST(CollectedRegistrations, LetExceptionsThrough) {
    const auto fail = [](const Service&, const ServiceCallback&) { throw std::bad_alloc(); };
    EXPECT_THROW(ClientTestAccess::collect(makeServices(1), fail), std::bad_alloc);
    EXPECT_THROW(ClientTestAccess::collect(makeServices(1), {}), std::bad_function_call);
}

class CollectedWithdrawals : public ClientTest {
  protected:
    using Registrations = std::map<std::uint64_t, Service>;

    /// Registrations with consecutive ids that begin at 1.
    static Registrations makeRegistrations(std::uint64_t count) {
        Registrations registrations;
        for (std::uint64_t id = 1; id <= count; ++id) {
            registrations.emplace(id, ClientTest::service("service"));
        }
        return registrations;
    }
    /// Answers the ids in `responses`, and leaves all others unanswered.
    auto collectWith(const Registrations& registrations,
                     const std::map<std::uint64_t, Response>& responses) {
        return access().collectUnregistrations(
            registrations,
            [&](std::uint64_t id, const Service& one, const ServiceCallback& collect) {
                ids.push_back(id);
                if (responses.count(id) != 0) {
                    collect(one, responses.at(id));
                }
            });
    }

    std::vector<std::uint64_t> ids;
};

TEST_F(CollectedWithdrawals, AreStartedInTheOrderOfTheirIds) {
    start();
    const auto [allSucceeded, responses] =
        collectWith(makeRegistrations(3), {{1, ok}, {2, ok}, {3, ok}});
    EXPECT_TRUE(allSucceeded);
    EXPECT_EQ(responses.size(), 3U);
    EXPECT_THAT(ids, ElementsAre(1, 2, 3));
}

TEST_F(CollectedWithdrawals, FailWhenOneDoes) {
    start();
    const Registrations registrations = makeRegistrations(3);
    const auto [allSucceeded, responses] =
        collectWith(registrations, {{1, ok}, {2, failed}, {3, ok}});
    EXPECT_FALSE(allSucceeded);
    ASSERT_EQ(responses.size(), 3U);
    EXPECT_EQ(responses.at(registrations.at(2)).errorCode, Response::SERVICE_REGISTRY_ERROR);
}

TEST_F(CollectedWithdrawals, LookAtTheStatusOnly) {
    start();
    EXPECT_TRUE(collectWith(makeRegistrations(1), {{1, {Response::OK, Response::TIMEOUT}}}).first);
    EXPECT_FALSE(collectWith(makeRegistrations(1), {{1, {Response::ERROR, Response::NONE}}}).first);
}

TEST_F(CollectedWithdrawals, ReturnTheAnswersThatCameBeforeTheTimeOut) {
    context.setSyncCallUnregisterTimeout(Milliseconds(50));
    start();
    const Registrations registrations = makeRegistrations(3);
    const auto begin = std::chrono::steady_clock::now();
    const auto [allSucceeded, responses] = collectWith(registrations, {{1, ok}, {3, ok}});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(50));
    EXPECT_FALSE(allSucceeded);
    EXPECT_EQ(responses.size(), 2U);
    EXPECT_EQ(responses.count(registrations.at(2)), 0U);
}

TEST_F(CollectedWithdrawals, OfNothingTakeAllTheTime) {
    context.setSyncCallUnregisterTimeout(Milliseconds(50));
    start();
    const auto begin = std::chrono::steady_clock::now();
    const auto [allSucceeded, responses] = collectWith({}, {});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(50));
    EXPECT_FALSE(allSucceeded);
    EXPECT_THAT(responses, IsEmpty());
}

TEST_F(CollectedWithdrawals, DoNotWaitWhenTheTimeOutIsNegative) {
    context.setSyncCallUnregisterTimeout(Milliseconds(-1));
    start();
    EXPECT_FALSE(collectWith(makeRegistrations(2), {{1, ok}}).first);
    EXPECT_TRUE(collectWith(makeRegistrations(2), {{1, ok}, {2, ok}}).first)
        << "all have answered already";
}

TEST_F(CollectedWithdrawals, WaitWithoutLimitWhenTheTimeOutIsZero) {
    context.setSyncCallUnregisterTimeout(Milliseconds(0));
    start();
    const Registrations registrations = makeRegistrations(1);
    std::promise<ServiceCallback> started;
    testing::BlockingCall<bool> call([&] {
        return access()
            .collectUnregistrations(registrations,
                                    [&](std::uint64_t, const Service&, ServiceCallback collect) {
                                        started.set_value(std::move(collect));
                                    })
            .first;
    });
    EXPECT_TRUE(call.isWaiting());
    started.get_future().get()(registrations.at(1), ok);
    EXPECT_TRUE(call.get());
}

TEST_F(CollectedWithdrawals, DropLateAnswers) {
    context.setSyncCallUnregisterTimeout(Milliseconds(-1));
    start();
    const Registrations registrations = makeRegistrations(1);
    ServiceCallback late;
    access().collectUnregistrations(
        registrations,
        [&](std::uint64_t, const Service&, const ServiceCallback& collect) { late = collect; });
    EXPECT_NO_THROW(late(registrations.at(1), ok));
    EXPECT_NO_THROW(late(registrations.at(1), ok)) << "it does not even count";
    EXPECT_EQ(registrations.at(1).use_count(), 1) << "nor is it kept";
}

TEST_F(CollectedWithdrawals, CountInEightBits) {
    start();
    access().collectUnregistrations(makeRegistrations(1), [](std::uint64_t, const Service& one,
                                                             const ServiceCallback& collect) {
        for (int answers = 0; answers < 256; ++answers) {
            EXPECT_NO_THROW(collect(one, ok));
        }
        EXPECT_THROW(collect(one, ok), std::future_error) << "the count is one again";
    });
}

TEST_F(CollectedWithdrawals, OfMoreThanTheCounterHoldsFailThoughAllHaveAnswered) {
    context.setSyncCallUnregisterTimeout(Milliseconds(50));
    start();
    const Registrations registrations = makeRegistrations(256);
    std::map<std::uint64_t, Response> answers;
    for (const auto& [id, one] : registrations) {
        answers.emplace(id, ok);
    }
    const auto [allSucceeded, responses] = collectWith(registrations, answers);
    EXPECT_FALSE(allSucceeded);
    EXPECT_EQ(responses.size(), 256U);
}

TEST_F(CollectedWithdrawals, OfTwoIdsWithOneDescriptionLeaveOneAnswerAndCountBoth) {
    start();
    const Service shared = service("shared");
    const auto [allSucceeded, responses] =
        collectWith({{1, shared}, {2, shared}}, {{1, failed}, {2, ok}});
    EXPECT_FALSE(allSucceeded);
    ASSERT_EQ(responses.size(), 1U);
    EXPECT_EQ(responses.at(shared).status, Response::OK) << "the last answer stays";
}

TEST_F(CollectedWithdrawals, LetExceptionsThrough) {
    start();
    EXPECT_THROW(access().collectUnregistrations(makeRegistrations(1), {}), std::bad_function_call);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
