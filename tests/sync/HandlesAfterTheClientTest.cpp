// Handles, removers and blocking withdrawals that are called while their client ends, on real
// threads. The sanitizers detect data races and uses of freed memory.
#include "SyncTest.h"

#include "HostileServer.h"

#include <orvx/utility/OrvFoundationException.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

constexpr auto kGone = Response::DELEGATOR_NOT_INITIATED;

class TheEndOfTheClient : public SyncTest {
  protected:
    /// Two threads repeat all calls that refer to the client until the client is gone. Both have
    /// started when `end` is called.
    void meetCalls(const std::function<void()>& end) {
        // With port 0 a registration is answered without a network request.
        const auto result = client().registerServiceAtRegistry(registry, service("echo"));
        const Handle handle = client().registerServiceAtRegistry(registry, service("echo"), {});
        const Handle refused = client().registerServiceAtRegistry(registry, service(), {});
        const auto remove = client().addServiceRegisterStatusListener({});
        std::atomic<int> rounds{0};
        const auto call = [&] {
            while (result.unregister().errorCode != kGone) {
                handle([&handle](const Response&) { handle({}); });
                refused({});
                remove();
                ++rounds;
            }
        };
        const auto first = std::async(std::launch::async, call);
        const auto second = std::async(std::launch::async, call);
        while (rounds < 4) {
            std::this_thread::yield();
        }
        end();
    }
};

TEST_F(TheEndOfTheClient, IsTheAnswerToEveryLaterBlockingWithdrawal) {
    start();
    const auto sent = client().registerServiceAtRegistry(registry, service("echo"));
    const auto refused = client().registerServiceAtRegistry(registry, service());
    const auto set = client().registerServicesAtRegistry(registry, makeServices(2));
    context.deinit();
    EXPECT_EQ(sent.unregister().status, Response::ERROR);
    EXPECT_EQ(sent.unregister().errorCode, kGone);
    EXPECT_EQ(refused.unregister().errorCode, kGone);
    for (const auto& [model, entry] : set.second) {
        EXPECT_EQ(entry.unregister().errorCode, kGone);
    }
}

// Callbacks that get the client from the context run until deinit() returns.
TEST_F(TheEndOfTheClient, MayRaceWithCallsThatGetTheClient) {
    start();
    const IOrvServiceRegistryClient* const only = context.getServiceRegistryClient();
    std::atomic<bool> hasBegun{false};
    const auto get = std::async(std::launch::async, [&] {
        while (context.isInitiated()) {
            try {
                const auto* const got = context.getServiceRegistryClient();
                EXPECT_TRUE(got == only || got == nullptr);
            } catch (const utility::OrvFoundationException&) {
            }
            hasBegun = true;
        }
    });
    while (!hasBegun) {
        std::this_thread::yield();
    }
    context.deinit();
}

TEST_F(TheEndOfTheClient, LeavesCallbacksTheGettersOfADyingContext) {
    auto own = std::make_unique<OrvServiceRegistryContext>();
    own->setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    own->setRegistrationListener([](const auto&) {});
    own->init();
    OrvServiceRegistryContext& dying = *own;
    std::promise<void> begun;
    const auto expectOptions = [&](const Response&) {
        begun.set_value();
        while (dying.getLoggerFactory() != nullptr) {
            std::this_thread::yield();
        }
        EXPECT_EQ(dying.getOrvServiceRegistryClientFactory(), nullptr);
        EXPECT_NE(dying.getServiceRegistryClient(), nullptr);
        EXPECT_TRUE(dying.getRegistrationListener());
        EXPECT_TRUE(dying.getHttpConfig().headers.empty());
        EXPECT_EQ(dying.getHttpStatusCodesForRetry().size(), 3U);
    };
    dying.getServiceRegistryClient()->registerServiceAtRegistry(registry, service(), expectOptions);
    begun.get_future().wait();
    own.reset();
}

TEST_F(TheEndOfTheClient, MayRaceWithCallsOfItsHandles) {
    context.setSyncCallUnregisterTimeout(std::chrono::milliseconds(20));
    for (int round = 0; round < 50; ++round) {
        start();
        meetCalls([this] { context.deinit(); });
    }
}

TEST_F(TheEndOfTheClient, MayRaceWithCallsOfItsHandlesWhenACallbackEndsIt) {
    context.setSyncCallUnregisterTimeout(std::chrono::milliseconds(20));
    for (int round = 0; round < 50; ++round) {
        start();
        std::promise<void> ended;
        meetCalls([&] {
            onCallbackThread([&] {
                context.deinit();
                ended.set_value();
            });
        });
        ended.get_future().wait();
    }
}

/// Calls a function of the test with each line that the client logs.
class ListeningLoggerFactory : public utility::ILoggerFactory {
  public:
    using Listener = std::function<void(const std::string& text)>;

    explicit ListeningLoggerFactory(Listener listener) : listener_(std::move(listener)) {}

    std::shared_ptr<utility::ILogger> createLogger(const std::string& /*component*/,
                                                   const std::string& /*name*/) override {
        struct Logger : utility::ILogger {
            explicit Logger(Listener called) : listener(std::move(called)) {}
            void log(const std::string& text, int /*level*/) override { listener(text); }
            bool isEnabled(LogLevel /*level*/) const override { return true; }
            const Listener listener;
        };
        return std::make_shared<Logger>(listener_);
    }
    void flush() override {}
    utility::ILogger::LogLevel getLogLevel() const override {
        return utility::ILogger::LogLevel::Info;
    }
    void setLogLevel(utility::ILogger::LogLevel /*level*/) override {}

  private:
    const Listener listener_;
};

/// Its client is ended by another thread while a blocking call logs a line, between its requests.
class ABlockingCallOverASet : public ::testing::Test {
  protected:
    ABlockingCallOverASet() {
        context.setLoggerFactory(
            std::make_shared<ListeningLoggerFactory>([this](const std::string& text) {
                if (text.find(awaited) == 0 && !std::exchange(hasEndBegun, true)) {
                    end = std::async(std::launch::async, [this] { context.deinit(); });
                    hasEndedTooEarly =
                        end.wait_for(std::chrono::milliseconds(100)) == std::future_status::ready;
                }
            }));
    }
    IOrvServiceRegistryClient& client() { return *context.getServiceRegistryClient(); }

    testing::HostileServer server;
    const common::ServiceInfo registry{"registry", "127.0.0.1", server.port()};
    std::string awaited;
    bool hasEndBegun = false;
    bool hasEndedTooEarly = false;
    std::future<void> end;
    OrvServiceRegistryContext context;
};

TEST_F(ABlockingCallOverASet, IsAwaitedByTheEndOfAClientWithResilienceWhileItSends) {
    context.enableResilience(true);
    awaited = "Service is missing name";
    context.init();
    const auto result = client().registerServicesAtRegistry(registry, makeServices(5));
    end.get();
    EXPECT_FALSE(hasEndedTooEarly);
    EXPECT_FALSE(result.first);
    EXPECT_THAT(result.second, ::testing::SizeIs(5));
    for (const auto& [service, one] : result.second) {
        EXPECT_EQ(one.response.status, Response::ERROR);
        EXPECT_EQ(one.unregister().errorCode, kGone);
    }
}

TEST_F(ABlockingCallOverASet, IsAwaitedByTheEndWhileItSends) {
    context.setSyncCallUnregisterTimeout(std::chrono::milliseconds(20));
    awaited = "Trying to unregister a service that is not registered yet";
    server.onRequest([](const testing::Request&) { return testing::Script().silence(); });
    context.init();
    for (const char* const name : {"a", "b", "c"}) {
        client().registerServiceAtRegistry(registry, service(name), {});
    }
    const auto result = client().unregisterAllServicesFromRegistry();
    end.get();
    EXPECT_FALSE(hasEndedTooEarly);
    EXPECT_FALSE(result.first);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
