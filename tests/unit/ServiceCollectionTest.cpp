// Registering a set of services, in both forms, in simulated time and network: a blocking call is
// answered on the calling thread, before it begins to wait.
#include "ClientTest.h"
#include "FunctionFactory.h"
#include "ScriptedClient.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;
using Model = std::shared_ptr<common::ServiceModel>;
using Service = std::shared_ptr<common::ServiceCreate>;
using Response = OrvRegistrationResponse;
using ResponseCallback = IOrvServiceRegistryClient::ResponseCallback;
using ServiceSet = IOrvServiceRegistryClient::ServiceSet;

class ServiceCollection : public ClientTest {
  protected:
    ServiceCollection() {
        context.setOrvServiceRegistryClientFactory(makeScriptedClientFactory(context));
    }
    ScriptedClient& scripted() {
        return dynamic_cast<ScriptedClient&>(*context.getServiceRegistryClient());
    }
    /// Records the outcome under the service's name. The model must be the caller's own object.
    IOrvServiceRegistryClient::ServiceCallback recordOne() {
        return [this](const Model& model, const Response& response) {
            EXPECT_EQ(world.currentThread(), "ORVX_SRCBExec");
            EXPECT_EQ(services.count(std::static_pointer_cast<common::ServiceCreate>(model)), 1U);
            outcomes.push_back(outcome(model->getName(), response));
        };
    }
    Service named(const std::string& name) const {
        return *std::find_if(services.begin(), services.end(),
                             [&](const Service& one) { return one->getName() == name; });
    }
    /// Answers each PUT with the service's name as uuid, and the PUTs in `refused` with `status`.
    void answerAll(const std::set<std::string>& refused = {}, int status = 400) {
        while (auto put = world.takeRequest()) {
            const std::string name = put->path().substr(1);
            put->answer(refused.count(name) == 0 ? 201 : status, location("/" + name));
        }
        world.settle();
    }

    const ServiceSet services = {service("one"), service("two"), service("three")};
};

TEST_F(ServiceCollection, ReportsEachServiceWhenItIsAnswered) {
    start();
    client().registerServicesAtRegistry(registry, services, recordOne());
    EXPECT_EQ(world.requestsToTake(), 3U);
    std::map<std::string, simulation::Request> puts;
    while (const auto put = world.takeRequest()) {
        puts.emplace(put->path(), *put);
    }
    puts.at("/two").answer(201, location("/b"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"two", "OK", "NONE", 201}));
    puts.at("/three").answer(403);
    puts.at("/one").answer(200, location("/a"));
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"three", "ERROR", "SERVICE_REGISTRY_ERROR", 403},
                            Outcome{"one", "OK", "NONE", 200}));
}

TEST_F(ServiceCollection, GivesAHandleForEachService) {
    start();
    const auto handles = client().registerServicesAtRegistry(registry, services, recordOne());
    ASSERT_EQ(handles.size(), 3U);
    answerAll();
    takeOutcomes();
    handles.at(named("two"))(record("withdrawal"));
    simulation::Request request = next("DELETE");
    EXPECT_EQ(request.path(), "/two");
    request.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_EQ(registrationIds().size(), 2U);
}

TEST_F(ServiceCollection, GoesThroughTheInterface) {
    start();
    ServiceSet given;
    scripted().onRegister = [&](const common::ServiceInfo& info, const Service& one,
                                const ResponseCallback& callback) -> Handle {
        EXPECT_EQ(info.getName(), registry.getName());
        given.insert(one);
        callback({Response::OK, Response::NONE});
        return [](const ResponseCallback&) {};
    };
    std::vector<Model> told;
    const auto handles = client().registerServicesAtRegistry(
        registry, services, [&](const Model& model, const Response&) { told.push_back(model); });
    EXPECT_EQ(given, services);
    EXPECT_THAT(told, UnorderedElementsAreArray(services));
    EXPECT_EQ(handles.size(), 3U);
}

TEST_F(ServiceCollection, OfNothingDoesNothing) {
    start();
    EXPECT_THAT(client().registerServicesAtRegistry(registry, {}, recordOne()), IsEmpty());
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(ServiceCollection, WithoutACallbackRegistersAllTheSame) {
    start();
    client().registerServicesAtRegistry(registry, services, {});
    answerAll();
    EXPECT_EQ(registrationIds().size(), 3U);
    registerService("next");
    answerAll();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"next", "OK", "NONE", 201}));
}

TEST_F(ServiceCollection, WithoutACallbackThrowsWhereTheAnswerIsDelivered) {
    start();
    scripted().onRegister = [](const auto&, const auto&, const ResponseCallback& callback) {
        EXPECT_THROW(callback({Response::OK, Response::NONE}), std::bad_function_call);
        return Handle();
    };
    client().registerServicesAtRegistry(registry, services, {});
}

TEST_F(ServiceCollection, ReportsServicesThatAreRefusedAtOnceToo) {
    start();
    const Service nameless = service("");
    client().registerServicesAtRegistry(registry, {nameless},
                                        [&](const Model& model, const Response& response) {
                                            EXPECT_EQ(model, nameless);
                                            outcomes.push_back(outcome("nameless", response));
                                        });
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"nameless", "ERROR", "SERVICE_NAME_MISSING", -1}));
}

/// The blocking form: the registration of the last service answers all of them.
class SynchronousServiceCollection : public ServiceCollection {
  protected:
    using Result = std::pair<bool, std::map<Model, SyncOrvRegistrationResponse>>;

    Result registerAll(const std::function<void()>& answer) {
        scripted().onRegister = [&, count = std::size_t(0)](
                                    const auto& info, const Service& one,
                                    ResponseCallback callback) mutable -> Handle {
            const Handle handle = scripted().registerForReal(info, one, std::move(callback));
            if (++count == services.size()) {
                answer();
            }
            return [this, handle](const ResponseCallback& done) {
                handle(done);
                next("DELETE").answer(200);
                world.settle();
            };
        };
        return client().registerServicesAtRegistry(registry, services);
    }
    std::vector<Outcome> outcomesOf(const Result& result) {
        std::vector<Outcome> all;
        for (const auto& [model, entry] : result.second) {
            all.push_back(outcome(model->getName(), entry.response));
        }
        return all;
    }
};

TEST_F(SynchronousServiceCollection, SucceedsWhenAllDo) {
    start();
    const Result result = registerAll([this] { answerAll(); });
    EXPECT_TRUE(result.first);
    EXPECT_THAT(outcomesOf(result), UnorderedElementsAre(Outcome{"one", "OK", "NONE", 201},
                                                         Outcome{"two", "OK", "NONE", 201},
                                                         Outcome{"three", "OK", "NONE", 201}));
    EXPECT_EQ(result.second.count(named("one")), 1U) << "under the caller's own object";
    EXPECT_EQ(registrationIds().size(), 3U);
}

TEST_F(SynchronousServiceCollection, FailsWhenOneDoes) {
    start();
    const Result result = registerAll([this] { answerAll({"two"}, 409); });
    EXPECT_FALSE(result.first);
    EXPECT_THAT(outcomesOf(result),
                UnorderedElementsAre(Outcome{"one", "OK", "NONE", 201},
                                     Outcome{"two", "ERROR", "SERVICE_REGISTRY_ERROR", 409},
                                     Outcome{"three", "OK", "NONE", 201}));
}

TEST_F(SynchronousServiceCollection, GivesFunctionsThatWithdrawAndOutliveTheCall) {
    start();
    std::map<std::string, std::function<Response()>> withdraw;
    {
        const Result result = registerAll([this] { answerAll(); });
        for (const auto& [model, entry] : result.second) {
            withdraw[model->getName()] = entry.unregister;
        }
    }
    scripted().onRegister = nullptr;
    EXPECT_EQ(outcome("", withdraw.at("two")()), (Outcome{"", "OK", "NONE", 200}));
    EXPECT_EQ(registrationIds().size(), 2U);
    EXPECT_EQ(outcome("", withdraw.at("one")()), (Outcome{"", "OK", "NONE", 200}));
    EXPECT_EQ(registrationIds().size(), 1U);
    EXPECT_EQ(nameOf(registrationIds().front()), "three");
}

TEST_F(SynchronousServiceCollection, GivesFunctionsThatThrowWithoutAHandle) {
    start();
    scripted().onRegister = [](const auto&, const auto&, const ResponseCallback& callback) {
        callback({Response::OK, Response::NONE});
        return Handle();
    };
    const Result result = client().registerServicesAtRegistry(registry, services);
    EXPECT_THROW(result.second.at(named("one")).unregister(), std::bad_function_call);
}

TEST_F(SynchronousServiceCollection, GivesFunctionsThatAreBoundedByTheUnregisterTimeOut) {
    context.setSyncCallUnregisterTimeout(Milliseconds(50));
    start();
    scripted().onRegister = [](const auto&, const auto&, const ResponseCallback& callback) {
        callback({Response::OK, Response::NONE});
        return [](const ResponseCallback&) {};
    };
    const Result result = client().registerServicesAtRegistry(registry, services);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(outcome("", result.second.at(named("one")).unregister()),
              (Outcome{"", "ERROR", "TIMEOUT", -1}));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(50));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
