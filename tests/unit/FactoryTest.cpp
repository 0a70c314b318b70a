// What makes the client: the library's own factory, and one of the user's in its place.
#include "ClientTest.h"
#include "FunctionFactory.h"

#include <serviceregistryclient/OrvServiceRegistryClientFactory.h>

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
        ClientTestAccess clientAccess(dynamic_cast<OrvServiceRegistryClient&>(*client));
        EXPECT_THAT(clientAccess.ids(), ElementsAre(1));
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

TEST_F(Factory, LetsThroughWhatMakingTheClientThrows) {
    OrvServiceRegistryClientFactory factory(context);
    world.setHook([](simulation::World::Step) { throw std::runtime_error("no network"); });
    EXPECT_THROW(factory.createOrvServiceRegistryClient(log, false), std::runtime_error);
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

TEST_F(Factory, OfTheUsersMakesTheClientThatTheContextHandsOutAndOwns) {
    class Client : public OrvServiceRegistryClient {
      public:
        Client(std::shared_ptr<utility::ILoggerFactory> loggers, OrvServiceRegistryContext& owner,
               std::vector<Client*>& alive)
            : OrvServiceRegistryClient(std::move(loggers), false, owner), alive_(alive) {
            alive_.push_back(this);
        }
        ~Client() override { alive_.clear(); }

      private:
        std::vector<Client*>& alive_;
    };
    std::vector<Client*> alive;
    context.setOrvServiceRegistryClientFactory(
        std::make_shared<FunctionFactory>([&](const auto& loggerFactory, bool) {
            return std::make_unique<Client>(loggerFactory, context, alive);
        }));
    start();
    EXPECT_THAT(alive, ElementsAre(context.getServiceRegistryClient()));
    context.deinit();
    EXPECT_THAT(alive, IsEmpty());
}

}  // namespace
}  // namespace orvx::serviceregistryclient
