// The factories of the client: that of the library, and one of the user.
#include "ClientTest.h"
#include "FunctionFactory.h"

#include <serviceregistryclient/OrvServiceRegistryClientFactory.h>

#include <orvx/utility/OrvFoundationException.h>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class Factory : public ClientTest {};

TEST_F(Factory, MakesANewSeparateClientWithEachCall) {
    OrvServiceRegistryClientFactory factory(context);
    const auto first = factory.createOrvServiceRegistryClient(log, false);
    auto second = factory.createOrvServiceRegistryClient(log, false);
    ASSERT_NE(first, second);
    for (const auto& client : {first.get(), second.get()}) {
        client->registerServiceAtRegistry(registry, service("echo"), record("echo"));
        log->takeLines();
        client->unregisterAllServicesFromRegistry([](const auto&, const auto&) {});
        EXPECT_THAT(log->takeLines(),
                    ElementsAre(testing::warning("Trying to unregister a service that is not "
                                                 "registered yet. Ignore. id=1")))
            << "each client holds one registration, with an id of its own";
    }
    EXPECT_EQ(world.outstandingRequests(), 2U);
    second.reset();
    EXPECT_EQ(world.outstandingRequests(), 1U);
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(Factory, TellsTheClientWhetherToRegisterWithThePrefix) {
    const common::ServiceInfo own("echo", "127.0.0.1", 80, "prefix/");
    OrvServiceRegistryClientFactory factory(context);
    for (const bool withPrefix : {false, true}) {
        const auto client = factory.createOrvServiceRegistryClient(log, withPrefix);
        EXPECT_EQ(client->getServiceCreate(own).getUri(), withPrefix ? "prefix/echo" : "/echo");
    }
    context.setRegisterWithPrefix(true);
    start();
    EXPECT_EQ(client().getServiceCreate(own).getUri(), "prefix/echo");
}

TEST_F(Factory, PassesOnExceptionsOfTheClientsConstructor) {
    OrvServiceRegistryClientFactory factory(context);
    world.setHook([](simulation::World::Step) { throw std::runtime_error("no network"); });
    EXPECT_THROW(factory.createOrvServiceRegistryClient(log, false), std::runtime_error);
}

TEST_F(Factory, RefusesToMakeAClientWithoutALoggerFactory) {
    OrvServiceRegistryClientFactory factory(context);
    try {
        factory.createOrvServiceRegistryClient(nullptr, false);
        FAIL() << "it made one";
    } catch (const utility::OrvFoundationException& exception) {
        EXPECT_STREQ(exception.what(), "A client needs a logger factory, not a null pointer.");
        EXPECT_EQ(exception.errorCode(), 0);
    }
}

TEST_F(Factory, GivesTheClientItsLoggerUnderFixedNames) {
    start();
    EXPECT_THAT(log->names(),
                ElementsAre(Pair("OrvxServiceRegistryClient", "OrvServiceRegistryClient")));
}

TEST_F(Factory, OfTheUsersIsCalledByInitWithTheContextsOwn) {
    for (const bool withPrefix : {false, true}) {
        int calls = 0;
        OrvServiceRegistryContext fresh;
        fresh.setLoggerFactory(log);
        fresh.setRegisterWithPrefix(withPrefix);
        fresh.setOrvServiceRegistryClientFactory(
            std::make_shared<FunctionFactory>([&](const auto& loggerFactory, bool given) {
                ++calls;
                EXPECT_EQ(loggerFactory, log);
                EXPECT_EQ(given, withPrefix);
                return std::make_unique<OrvServiceRegistryClient>(loggerFactory, given, fresh);
            }));
        fresh.init();
        EXPECT_EQ(calls, 1);
    }
}

// Uses installed headers only: users cannot derive from the library's client.
class WrappedClient : public IOrvServiceRegistryClient {
  public:
    WrappedClient(std::unique_ptr<IOrvServiceRegistryClient> wrapped, std::vector<std::string>& log)
        : wrapped_(std::move(wrapped)), log_(log) {}
    ~WrappedClient() override { log_.emplace_back("destroyed"); }

    UnregisterHandle registerServiceAtRegistry(
        const common::ServiceInfo& endpoint, const std::shared_ptr<common::ServiceCreate>& service,
        ResponseCallback callback) override {
        log_.push_back("registers " + service->getName());
        return wrapped_->registerServiceAtRegistry(endpoint, service, std::move(callback));
    }
    std::map<std::shared_ptr<common::ServiceModel>, UnregisterHandle> registerServicesAtRegistry(
        const common::ServiceInfo& endpoint, const ServiceSet& services,
        ServiceCallback callback) override {
        return wrapped_->registerServicesAtRegistry(endpoint, services, std::move(callback));
    }
    SyncOrvRegistrationResponse registerServiceAtRegistry(
        const common::ServiceInfo& endpoint,
        const std::shared_ptr<common::ServiceCreate>& service) override {
        return wrapped_->registerServiceAtRegistry(endpoint, service);
    }
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>>
    registerServicesAtRegistry(const common::ServiceInfo& endpoint,
                               const ServiceSet& services) override {
        return wrapped_->registerServicesAtRegistry(endpoint, services);
    }
    void unregisterAllServicesFromRegistry(ServiceCallback callback) override {
        wrapped_->unregisterAllServicesFromRegistry(std::move(callback));
    }
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>>
    unregisterAllServicesFromRegistry() override {
        return wrapped_->unregisterAllServicesFromRegistry();
    }
    common::ServiceCreate getServiceCreate(const common::ServiceInfo& own) override {
        return wrapped_->getServiceCreate(own);
    }
    std::shared_ptr<common::ServiceCreate> getSharedServiceCreate(
        const common::ServiceInfo& own) override {
        return wrapped_->getSharedServiceCreate(own);
    }
    std::function<void()> addServiceRegisterStatusListener(StatusListener listener) override {
        return wrapped_->addServiceRegisterStatusListener(std::move(listener));
    }

  private:
    std::unique_ptr<IOrvServiceRegistryClient> wrapped_;
    std::vector<std::string>& log_;
};

TEST_F(Factory, OfTheUsersWrapsTheLibrarysClientAndTheContextOwnsTheWrapper) {
    std::vector<std::string> calls;
    context.setOrvServiceRegistryClientFactory(
        std::make_shared<FunctionFactory>([&](const auto& loggerFactory, bool withPrefix) {
            OrvServiceRegistryClientFactory library(context);
            return std::make_unique<WrappedClient>(
                library.createOrvServiceRegistryClient(loggerFactory, withPrefix), calls);
        }));
    start();
    context.getServiceRegistryClient()->registerServiceAtRegistry(registry, service("echo"),
                                                                  record("echo"));
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
    context.deinit();
    EXPECT_THAT(calls, ElementsAre("registers echo", "destroyed"));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
