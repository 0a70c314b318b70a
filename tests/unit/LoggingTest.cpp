// Loggers that fail, are missing or use the client: none of them harms the client.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using namespace std::chrono_literals;

/// A logger with a hook for each operation.
class HookedLogger : public utility::ILogger {
  public:
    struct Hooks {
        std::function<void()> onLog = [] {};
        std::function<void()> onQuery = [] {};
    };

    explicit HookedLogger(Hooks hooks) : hooks_(std::move(hooks)) {}
    void log(const std::string&, int) override { hooks_.onLog(); }
    bool isEnabled(LogLevel) const override {
        hooks_.onQuery();
        return true;
    }

  private:
    Hooks hooks_;
};

class OneLoggerFactory : public testing::RecordingLoggerFactory {
  public:
    explicit OneLoggerFactory(std::shared_ptr<utility::ILogger> logger)
        : logger_(std::move(logger)) {}
    std::shared_ptr<utility::ILogger> createLogger(const std::string&,
                                                   const std::string&) override {
        return logger_;
    }

  private:
    std::shared_ptr<utility::ILogger> logger_;
};

class Logging : public ClientTest {
  protected:
    void startWith(std::shared_ptr<utility::ILogger> logger) {
        context.setLoggerFactory(std::make_shared<OneLoggerFactory>(std::move(logger)));
        context.setInitialMaxRetryCount(1);
        start();
    }
    /// Runs most of the code that logs, and expects the same results as without a logger.
    void expectTheClientToWork() {
        client().registerServiceAtRegistry(registry, service(""), record("nameless"))({});
        const Handle handle = registerService("echo");
        handle({});
        next("PUT").answer(communication::HttpResponse(communication::CommunicationStatus::Other));
        world.advance(500ms);
        next("PUT").answer(201, location("/abc"));
        loseEntry();
        next("PUT").answer(500);
        world.advance(10s);
        next("PUT").answer(201, location("/def"));
        handle(record("withdrawal"));
        next("DELETE").answer(500, "", "body");
        registerService("refused");
        next("PUT").answer(201, location("no slash"), "body");
        world.settle();
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"nameless", "ERROR", "SERVICE_NAME_MISSING", -1},
                                Outcome{"echo", "OK", "NONE", 201},
                                Outcome{"withdrawal", "ERROR", "SERVICE_REGISTRY_ERROR", 500},
                                Outcome{"refused", "ERROR", "SERVICE_REGISTRY_ERROR", 201}));
        EXPECT_THAT(registrationIds(), ElementsAre(1));
    }
};

TEST_F(Logging, ByALoggerThatThrowsHarmsNothing) {
    HookedLogger::Hooks hooks;
    int lines = 0;
    hooks.onLog = [&lines] {
        ++lines;
        throw std::runtime_error("disk full");
    };
    startWith(std::make_shared<HookedLogger>(hooks));
    expectTheClientToWork();
    EXPECT_EQ(lines, 12);
}

TEST_F(Logging, ByALoggerWhoseQueriesThrowHarmsNothing) {
    HookedLogger::Hooks hooks;
    hooks.onQuery = [] { throw 7; };
    startWith(std::make_shared<HookedLogger>(hooks));
    expectTheClientToWork();
}

TEST_F(Logging, ByNoLoggerAtAllHarmsNothing) {
    startWith(nullptr);
    expectTheClientToWork();
}

TEST_F(Logging, ByAFactoryThatCannotMakeALoggerLeavesTheContextUninitialised) {
    class FailingFactory : public testing::RecordingLoggerFactory {
      public:
        std::shared_ptr<utility::ILogger> createLogger(const std::string&,
                                                       const std::string&) override {
            throw std::runtime_error("no logger");
        }
    };
    context.setLoggerFactory(std::make_shared<FailingFactory>());
    EXPECT_THROW(start(), std::runtime_error);
    EXPECT_FALSE(context.isInitiated());
    context.setLoggerFactory(log);
    start();
    registered("echo", "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(Logging, HappensOnTheThreadThatHasSomethingToSay) {
    std::vector<std::string> threads;
    HookedLogger::Hooks hooks;
    hooks.onLog = [&] { threads.push_back(world.currentThread()); };
    startWith(std::make_shared<HookedLogger>(hooks));
    const Handle withdraw = registerService("echo");
    next("PUT").answer(communication::HttpResponse(communication::CommunicationStatus::Other));
    EXPECT_THAT(threads, Each("ORVX_HttpIO"));
    world.advance(500ms);
    next("PUT").answer(201, location("/abc"));
    withdraw({});
    next("DELETE").answer(200);
    threads.clear();
    world.advance(context.getCheckInterval());
    EXPECT_THAT(threads, ElementsAre("ORVX_SRRExec")) << "the check of an unknown id";
}

}  // namespace
}  // namespace orvx::serviceregistryclient
