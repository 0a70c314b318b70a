// The options, the times at which they may be set, and the life of the client.
#include "ClientTest.h"
#include "FunctionFactory.h"

#include <serviceregistryclient/OrvServiceRegistryClientFactory.h>

#include <orvx/utility/OrvFoundationException.h>
#include <orvx/utility/TimedConsoleLoggerFactory.h>

namespace orvx::serviceregistryclient {
namespace {

using communication::HttpResponse;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using utility::ILogger;
using utility::OrvFoundationException;
using LoggerFactory = testing::RecordingLoggerFactory;
using namespace std::chrono_literals;

class Context : public ClientTest {
  protected:
    /// The message of the exception that the call throws; empty if it throws none.
    static std::string refusal(const std::function<void()>& call) {
        try {
            call();
            return "";
        } catch (const OrvFoundationException& exception) {
            EXPECT_EQ(exception.errorCode(), 0);
            return exception.what();
        }
    }
};

class OtherLoggerFactory : public LoggerFactory {};
class OtherClientFactory : public OrvServiceRegistryClientFactory {
  public:
    using OrvServiceRegistryClientFactory::OrvServiceRegistryClientFactory;
};

/// An option: a function that sets a value other than the default, and one that returns whether the
/// option has that value. The latter is called after init() only.
struct Option {
    const char* refusal;
    std::function<void(OrvServiceRegistryContext&)> set;
    std::function<bool(OrvServiceRegistryContext&)> isSet;
};

using C = OrvServiceRegistryContext;
const Option options[] = {
    {"enabling retry after init is not allowed", [](C& c) { c.enableRetry(false); },
     [](C& c) { return !c.isRetryEnabled(); }},
    {"enabling retryAfterHttpStatus after init is not allowed",
     [](C& c) { c.enableRetryOnHttpStatus(true); },
     [](C& c) { return c.isRetryOnHttpStatusEnabled(); }},
    {"enabling registration status check after init is not allowed",
     [](C& c) { c.enableCheck(false); }, [](C& c) { return !c.isCheckEnabled(); }},
    {"setting check interval after init is not allowed", [](C& c) { c.setCheckInterval(7s); },
     [](C& c) { return c.getCheckInterval() == 7s; }},
    {"setting retry interval after init is not allowed", [](C& c) { c.setRetryInterval(7ms); },
     [](C& c) { return c.getRetryInterval() == 7ms; }},
    {"setting max retry count after init is not allowed",
     [](C& c) { c.setInitialMaxRetryCount(65535); },
     [](C& c) { return c.maxRetryCount() == 65535; }},
    {"setting logger factory for serviceregistry context after init is not allowed",
     [](C& c) { c.setLoggerFactory(std::make_shared<OtherLoggerFactory>()); },
     [](C& c) { return dynamic_cast<OtherLoggerFactory*>(c.getLoggerFactory()) != nullptr; }},
    {"setting RegistryClient factory after init is not allowed",
     [](C& c) { c.setOrvServiceRegistryClientFactory(std::make_shared<OtherClientFactory>(c)); },
     [](C& c) {
         return dynamic_cast<OtherClientFactory*>(c.getOrvServiceRegistryClientFactory().get()) !=
                nullptr;
     }},
    {"setting prefix usage for serviceregistry context after init is not allowed",
     [](C& c) { c.setRegisterWithPrefix(true); }, [](C& c) { return c.getRegisterWithPrefix(); }},
    {"setting registry timeout after init is not allowed",
     [](C& c) { c.setSyncCallRegistryTimeout(7ms); },
     [](C& c) { return c.getSyncCallRegistryTimeout() == 7ms; }},
    {"setting registry sync unregister timeout after init is not allowed",
     [](C& c) { c.setSyncCallUnregisterTimeout(7ms); },
     [](C& c) { return c.getSyncCallUnregisterTimeout() == 7ms; }},
    {"setting log level after init is not allowed",
     [](C& c) { c.setLogLevel(ILogger::LogLevel::Error); },
     [](C& c) { return c.getLogLevel() == ILogger::LogLevel::Error; }},
    {"setting headTimeout after init is not allowed", [](C& c) { c.setHeadTimeout(7ms); },
     [](C& c) { return c.getHeadTimeout() == 7ms; }},
    {"setting status codes after init is not allowed",
     [](C& c) { c.setHttpStatusCodesForRetry({HttpResponse::StatusCode::Conflict}); },
     [](C& c) {
         return c.getHttpStatusCodesForRetry() ==
                std::set<HttpResponse::StatusCode>{HttpResponse::StatusCode::Conflict};
     }},
    {"setting http config after init is not allowed",
     [](C& c) {
         communication::HttpConfig config;
         config.userAgent = "other";
         c.setHttpConfig(config);
     },
     [](C& c) { return c.getHttpConfig().userAgent == "other"; }},
};

TEST_F(Context, HasADefaultForEveryOption) {
    const OrvServiceRegistryContext fresh;
    EXPECT_TRUE(fresh.isRetryEnabled());
    EXPECT_TRUE(fresh.isCheckEnabled());
    EXPECT_FALSE(fresh.isRetryOnHttpStatusEnabled());
    EXPECT_FALSE(fresh.getRegisterWithPrefix());
    EXPECT_EQ(fresh.maxRetryCount(), 0);
    EXPECT_EQ(fresh.getCheckInterval(), 10s);
    EXPECT_EQ(fresh.getRetryInterval(), 500ms);
    EXPECT_EQ(fresh.getHeadTimeout(), 3000ms);
    EXPECT_EQ(fresh.getSyncCallRegistryTimeout(), 30000ms);
    EXPECT_EQ(fresh.getSyncCallUnregisterTimeout(), 30000ms);
    EXPECT_EQ(fresh.getLogLevel(), utility::Logger::DEFAULT_LOG_LEVEL);
    EXPECT_THAT(fresh.getHttpStatusCodesForRetry(),
                ElementsAre(HttpResponse::StatusCode::InternalServerError,
                            HttpResponse::StatusCode::ServiceUnavailable,
                            HttpResponse::StatusCode::GatewayTimeout));
    EXPECT_EQ(fresh.getHttpConfig().requestTimeout, communication::HttpConfig().requestTimeout);
}

TEST_F(Context, TakesEveryOptionBeforeInit) {
    for (const Option& option : options) {
        SCOPED_TRACE(option.refusal);
        OrvServiceRegistryContext fresh;
        fresh.setLoggerFactory(log);
        option.set(fresh);
        fresh.init();
        EXPECT_TRUE(option.isSet(fresh));
    }
}

TEST_F(Context, RefusesEveryOptionAfterInitAndChangesNothing) {
    for (const Option& option : options) {
        SCOPED_TRACE(option.refusal);
        OrvServiceRegistryContext fresh;
        fresh.setLoggerFactory(log);
        fresh.init();
        EXPECT_EQ(refusal([&] { option.set(fresh); }), option.refusal);
        EXPECT_FALSE(option.isSet(fresh));
        EXPECT_TRUE(fresh.isInitiated());
    }
}

TEST_F(Context, TakesEveryOptionAgainAfterDeinit) {
    for (const Option& option : options) {
        SCOPED_TRACE(option.refusal);
        OrvServiceRegistryContext fresh;
        fresh.setLoggerFactory(log);
        fresh.init();
        fresh.deinit();
        option.set(fresh);
        fresh.init();
        EXPECT_TRUE(option.isSet(fresh));
    }
}

TEST_F(Context, TakesAnEmptySetOfStatusCodes) {
    context.setHttpStatusCodesForRetry({});
    EXPECT_THAT(context.getHttpStatusCodesForRetry(), IsEmpty());
}

TEST_F(Context, AnswersPlainGettersInEveryPhase) {
    const auto ask = [this] {
        EXPECT_EQ(context.getCheckInterval(), 10s);
        EXPECT_FALSE(context.getRegisterWithPrefix());
        EXPECT_TRUE(context.isRetryEnabled());
    };
    ask();
    start();
    ask();
    context.deinit();
    ask();
}

TEST_F(Context, HandsOutClientAndFactoriesOnlyWhileInitiated) {
    const auto refusals = [this] {
        return std::vector{refusal([this] { context.getServiceRegistryClient(); }),
                           refusal([this] { context.getLoggerFactory(); }),
                           refusal([this] { context.getOrvServiceRegistryClientFactory(); })};
    };
    const auto allRefused = ElementsAre(
        "Cannot get ServiceRegistryDelegator before init", "Cannot get LoggerFactory before init",
        "failed to get RegistryClient factory because context is not initialized");
    EXPECT_THAT(refusals(), allRefused);
    start();
    EXPECT_THAT(refusals(), ElementsAre("", "", ""));
    EXPECT_NE(context.getServiceRegistryClient(), nullptr);
    EXPECT_EQ(context.getLoggerFactory(), log.get());
    context.deinit();
    EXPECT_THAT(refusals(), allRefused);
}

TEST_F(Context, IsInitiatedFromInitToDeinit) {
    IOrvServiceRegistryContext& base = context;
    EXPECT_FALSE(base.isInitiated());
    base.init();
    EXPECT_TRUE(base.isInitiated());
    base.deinit();
    EXPECT_FALSE(base.isInitiated());
}

TEST_F(Context, RefusesASecondInitAndKeepsTheClient) {
    start();
    registerService("echo");
    IOrvServiceRegistryClient* const first = context.getServiceRegistryClient();
    EXPECT_EQ(refusal([this] { context.init(); }), "OrvServiceRegistryContext already initiated");
    EXPECT_EQ(context.getServiceRegistryClient(), first);
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(Context, DoesNothingOnDeinitWhenItIsNotInitiated) {
    context.deinit();
    EXPECT_FALSE(context.isInitiated());
    start();
    context.deinit();
    context.deinit();
    EXPECT_FALSE(context.isInitiated());
}

TEST_F(Context, MakesANewClientWithEveryInit) {
    start();
    registered("echo", "abc");
    context.deinit();
    context.setHeadTimeout(7ms);
    start();
    EXPECT_THAT(registrationIds(), IsEmpty());
    registerService("other");
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(Context, EndsItsClientWhenItIsDestroyed) {
    auto local = std::make_unique<OrvServiceRegistryContext>();
    local->setLoggerFactory(log);
    local->init();
    local->getServiceRegistryClient()->registerServiceAtRegistry(registry, service("echo"),
                                                                 record("echo"));
    local->getServiceRegistryClient()->registerServiceAtRegistry(registry, service(""),
                                                                 record("nameless"));
    EXPECT_EQ(world.outstandingRequests(), 1U);
    local.reset();
    EXPECT_EQ(world.outstandingRequests(), 0U);
    EXPECT_EQ(world.queuedTasks(), 0U);
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
}

/// Answers its outstanding request in its destructor, as the I/O thread may do.
class LateClient : public OrvServiceRegistryClient {
  public:
    LateClient(std::shared_ptr<utility::ILoggerFactory> loggers, OrvServiceRegistryContext& owner,
               simulation::World& world)
        : OrvServiceRegistryClient(std::move(loggers), false, owner), world_(world) {}
    ~LateClient() override { world_.takeRequest()->answer(503); }

  private:
    simulation::World& world_;
};

// The address sanitizer detects that a set is used which has been destroyed.
TEST_F(Context, LeavesItsClientTheStatusCodesToTheEnd) {
    auto local = std::make_unique<OrvServiceRegistryContext>();
    local->setLoggerFactory(log);
    local->enableRetryOnHttpStatus(true);
    local->setInitialMaxRetryCount(1);
    local->setOrvServiceRegistryClientFactory(
        std::make_shared<FunctionFactory>([&](const auto& loggerFactory, bool) {
            return std::make_unique<LateClient>(loggerFactory, *local, world);
        }));
    local->init();
    local->getServiceRegistryClient()->registerServiceAtRegistry(registry, service("echo"), {});
    local.reset();
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(500ms));
}

// With resilience the queued callbacks are called before the client is destroyed. The address
// sanitizer detects the use of an option that has been destroyed.
TEST_F(Context, AnswersItsGettersUntilItsClientIsDestroyed) {
    communication::HttpConfig config;
    config.headers = {{"X-Site", "north"}};
    bool isCalled = false;
    auto local = std::make_unique<OrvServiceRegistryContext>();
    OrvServiceRegistryContext& ending = *local;  // unique_ptr is empty while it deletes
    local->setLoggerFactory(log);
    local->setHttpConfig(config);
    local->enableResilience(true);
    local->setHttpStatusCodesForRetry({HttpResponse::StatusCode::NotFound});
    local->setRegistrationListener([](const auto&) {});
    local->init();
    IOrvServiceRegistryClient* const client = local->getServiceRegistryClient();
    client->registerServiceAtRegistry(registry, service("echo"), [&](const auto&) {
        isCalled = true;
        EXPECT_EQ(ending.getHttpConfig().headers, config.headers);
        EXPECT_THAT(ending.getHttpStatusCodesForRetry(),
                    ElementsAre(HttpResponse::StatusCode::NotFound));
        EXPECT_TRUE(ending.getRegistrationListener());
        EXPECT_EQ(ending.getServiceRegistryClient(), client);
        EXPECT_TRUE(ending.isInitiated());
        EXPECT_EQ(ending.getLoggerFactory(), nullptr);
        EXPECT_EQ(ending.getOrvServiceRegistryClientFactory(), nullptr);
    });
    local.reset();
    EXPECT_TRUE(isCalled);
}

TEST_F(Context, MakesTheFactoriesThatWereNotSet) {
    OrvServiceRegistryContext fresh;
    fresh.setLogLevel(ILogger::LogLevel::Warning);
    fresh.init();
    EXPECT_NE(dynamic_cast<utility::TimedConsoleLoggerFactory*>(fresh.getLoggerFactory()), nullptr);
    EXPECT_EQ(fresh.getLoggerFactory()->getLogLevel(), ILogger::LogLevel::Warning);
    EXPECT_NE(dynamic_cast<OrvServiceRegistryClientFactory*>(
                  fresh.getOrvServiceRegistryClientFactory().get()),
              nullptr);
}

TEST_F(Context, KeepsItsFactoriesForTheNextInit) {
    OrvServiceRegistryContext fresh;
    fresh.init();
    utility::ILoggerFactory* const loggerFactory = fresh.getLoggerFactory();
    const auto clientFactory = fresh.getOrvServiceRegistryClientFactory();
    fresh.deinit();
    fresh.init();
    EXPECT_EQ(fresh.getLoggerFactory(), loggerFactory);
    EXPECT_EQ(fresh.getOrvServiceRegistryClientFactory(), clientFactory);
}

TEST_F(Context, GivesALoggerFactoryOfTheUsersItsLevelWithEveryInit) {
    context.setLogLevel(ILogger::LogLevel::Error);
    start();
    EXPECT_EQ(log->getLogLevel(), ILogger::LogLevel::Error);
    context.deinit();
    log->setLogLevel(ILogger::LogLevel::Debug);
    start();
    EXPECT_EQ(log->getLogLevel(), ILogger::LogLevel::Error);
}

TEST_F(Context, HandsItsHttpConfigToTheSessions) {
    communication::HttpConfig config;
    config.requestTimeout = 1234ms;
    config.headers = {{"X-Site", "north"}};
    context.setHttpConfig(config);
    start();
    registerService("echo");
    ASSERT_EQ(world.sessions().size(), 1U);
    EXPECT_EQ(world.sessions()[0].config.requestTimeout, 1234ms);
    EXPECT_EQ(world.sessions()[0].config.headers, config.headers);
}

TEST_F(Context, StaysUninitiatedWhenTheClientCannotBeMade) {
    std::vector<utility::ILoggerFactory*> loggerFactories;
    OrvServiceRegistryContext fresh;
    const auto factory = std::make_shared<FunctionFactory>(
        [&](const auto& loggerFactory, bool) -> std::unique_ptr<IOrvServiceRegistryClient> {
            loggerFactories.push_back(loggerFactory.get());
            if (loggerFactories.size() == 1) {
                throw std::runtime_error("no client");
            }
            return std::make_unique<OrvServiceRegistryClient>(loggerFactory, false, fresh);
        });
    fresh.setOrvServiceRegistryClientFactory(factory);
    EXPECT_THROW(fresh.init(), std::runtime_error);
    EXPECT_FALSE(fresh.isInitiated());
    fresh.enableCheck(false);
    fresh.init();
    EXPECT_EQ(fresh.getOrvServiceRegistryClientFactory(), factory);
    EXPECT_EQ(loggerFactories[0], loggerFactories[1]);
    EXPECT_EQ(fresh.getLoggerFactory(), loggerFactories[0]);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
