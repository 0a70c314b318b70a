// Withdrawing all services of the client, in both forms.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Model = std::shared_ptr<common::ServiceModel>;
using Response = OrvRegistrationResponse;

class UnregisterAll : public ClientTest {
  protected:
    /// Records the outcome under the service's name, and the model.
    IOrvServiceRegistryClient::ServiceCallback recordOne() {
        return [this](const Model& model, const Response& response) {
            EXPECT_EQ(world.currentThread(), "ORVX_SRCBExec");
            models.push_back(model);
            outcomes.push_back(outcome(model->getName(), response));
        };
    }
    void registeredThree() {
        start();
        const auto remove = client().addServiceRegisterStatusListener(listen());
        for (const auto& [name, uuid] : {std::pair("one", "a"), {"two", "b"}, {"three", "c"}}) {
            registered(name, uuid);
            held.push_back(notifiedDescription);
        }
        remove();
        forgetThePast();
    }

    std::vector<Model> models;
    /// The client's own descriptions, in the order of their ids.
    std::vector<std::shared_ptr<const common::ServiceModel>> held;
};

TEST_F(UnregisterAll, WithdrawsEveryServiceInTheOrderOfTheirIds) {
    registeredThree();
    client().unregisterAllServicesFromRegistry(recordOne());
    std::vector<simulation::Request> requests;
    for (const std::string path : {"/a", "/b", "/c"}) {
        requests.push_back(next("DELETE"));
        EXPECT_EQ(requests.back().path(), path);
    }
    requests[2].answer(200);
    requests[0].answer(204);
    requests[1].answer(200);
    EXPECT_THAT(outcomes, IsEmpty());
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"three", "OK", "NONE", 200},
                                            Outcome{"one", "ERROR", "SERVICE_REGISTRY_ERROR", 204},
                                            Outcome{"two", "OK", "NONE", 200}));
    EXPECT_THAT(models, ElementsAre(held[2], held[0], held[1]));
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(UnregisterAll, WithdrawsWhicheverRegistryItIsFrom) {
    start();
    registered("one", "a");
    client().registerServiceAtRegistry(common::ServiceInfo("other", "127.0.0.2", 8600),
                                       service("two"), {});
    next("PUT").answer(201, location("/b"));
    client().unregisterAllServicesFromRegistry(recordOne());
    EXPECT_EQ(next("DELETE").host(), "127.0.0.1");
    EXPECT_EQ(next("DELETE").host(), "127.0.0.2");
}

TEST_F(UnregisterAll, LetsEachServiceAnswerAsItsStateIs) {
    start();
    const Handle withdraw = registered("leaving", "a");
    withdraw(record("asked before"));
    simulation::Request request = next("DELETE");
    registerService("registering");
    next("PUT");
    takeOutcomes();
    client().unregisterAllServicesFromRegistry(recordOne());
    EXPECT_EQ(world.requestsToTake(), 0U);
    request.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"registering", "ERROR", "SERVICE_NOT_FOUND", -1},
                            Outcome{"asked before", "OK", "NONE", 200},
                            Outcome{"leaving", "OK", "NONE", 200}));
    EXPECT_THAT(registrationIds(), ElementsAre(2));
}

TEST_F(UnregisterAll, OfNothingDoesNothing) {
    start();
    client().unregisterAllServicesFromRegistry(recordOne());
    EXPECT_EQ(world.queuedTasks(), 0U);
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(UnregisterAll, OfAStoppedClientAnswersForEachService) {
    registeredThree();
    client().deinit();
    client().unregisterAllServicesFromRegistry(recordOne());
    client().init();
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"one", "ERROR", "DELEGATOR_NOT_INITIATED", -1},
                            Outcome{"two", "ERROR", "DELEGATOR_NOT_INITIATED", -1},
                            Outcome{"three", "ERROR", "DELEGATOR_NOT_INITIATED", -1}));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(registrationIds(), SizeIs(3));
}

TEST_F(UnregisterAll, LeavesAServiceAloneThatComesMeanwhile) {
    registeredThree();
    client().unregisterAllServicesFromRegistry(recordOne());
    registerService("late");
    for (int answered = 0; answered < 3; ++answered) {
        next("DELETE").answer(200);
    }
    next("PUT").answer(201, location("/d"));
    world.settle();
    EXPECT_THAT(models, SizeIs(3));
    EXPECT_THAT(registrationIds(), ElementsAre(4));
    EXPECT_EQ(stateOf(4), State::Announced);
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(UnregisterAll, WithoutACallbackWithdrawsAllTheSame) {
    registeredThree();
    client().unregisterAllServicesFromRegistry(nullptr);
    for (int answered = 0; answered < 3; ++answered) {
        next("DELETE").answer(200);
    }
    world.settle();
    EXPECT_THAT(registrationIds(), IsEmpty());
    registered("next", "d");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"next", "OK", "NONE", 201}));
}

TEST_F(UnregisterAll, ReportsIdsWithOneRecordUnderItsDescription) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("one", "a");
    registered("same", "a");
    takeOutcomes();
    client().unregisterAllServicesFromRegistry(recordOne());
    simulation::Request request = next("DELETE");
    EXPECT_EQ(world.requestsToTake(), 0U);
    request.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"one", "OK", "NONE", 200}, Outcome{"one", "OK", "NONE", 200}));
    EXPECT_THAT(models, ElementsAre(notifiedDescription, notifiedDescription));
}

using SynchronousUnregisterAll = UnregisterAll;

TEST_F(SynchronousUnregisterAll, WithdrawsAllAfterItsTimeOutAndDropsTheAnswers) {
    context.setSyncCallUnregisterTimeout(Milliseconds(-1));
    registeredThree();
    client().addServiceRegisterStatusListener(listen());
    const auto [allSucceeded, responses] = client().unregisterAllServicesFromRegistry();
    EXPECT_FALSE(allSucceeded);
    EXPECT_THAT(responses, IsEmpty());
    for (const std::string path : {"/a", "/b", "/c"}) {
        simulation::Request request = next("DELETE");
        EXPECT_EQ(request.path(), path);
        request.answer(200);
    }
    world.settle();
    EXPECT_THAT(takeNotifications(),
                ElementsAre(Notification{"one", "a", false}, Notification{"two", "b", false},
                            Notification{"three", "c", false}));
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(SynchronousUnregisterAll, OfNothingTakesAllTheTime) {
    context.setSyncCallUnregisterTimeout(Milliseconds(50));
    start();
    const auto begin = std::chrono::steady_clock::now();
    const auto [allSucceeded, responses] = client().unregisterAllServicesFromRegistry();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(50));
    EXPECT_FALSE(allSucceeded);
    EXPECT_THAT(responses, IsEmpty());
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

}  // namespace
}  // namespace orvx::serviceregistryclient
