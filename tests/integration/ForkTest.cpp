// A child that is forked while a client works: it ends the context, or leaves that to the end of
// the process, and its parent is not disturbed. An alarm ends a child that hangs. Threads: the
// test's, the client's three, the registry's and that of the server in front, which observes
// whether a connection ended; in the child only the test's.
#include "Child.h"
#include "IntegrationTest.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace orvx::serviceregistryclient {
namespace {

using testing::HostileServer;
using testing::Request;
using testing::statusOfChild;

/// Calls a function for each line, on the logging thread.
class CallingLoggerFactory : public testing::RecordingLoggerFactory {
  public:
    using Function = std::function<void(const std::string&)>;

    explicit CallingLoggerFactory(Function function) : function_(std::move(function)) {}
    std::shared_ptr<utility::ILogger> createLogger(const std::string& /*component*/,
                                                   const std::string& /*name*/) override {
        return std::make_shared<Logger>(function_);
    }

  private:
    class Logger : public utility::ILogger {
      public:
        explicit Logger(Function function) : function_(std::move(function)) {}
        void log(const std::string& line, int /*level*/) override { function_(line); }
        bool isEnabled(LogLevel /*level*/) const override { return true; }

      private:
        Function function_;
    };

    Function function_;
};

class AForkedChild : public IntegrationTest {
  protected:
    AForkedChild() {
        front.onRequest(
            [this](const Request& request) { return passOn(request, registry.port()); });
    }

    void init(OrvServiceRegistryContext& parent,
              const std::shared_ptr<utility::ILoggerFactory>& log =
                  std::make_shared<testing::RecordingLoggerFactory>()) {
        parent.setLoggerFactory(log);
        parent.setHeadTimeout(1min);
        parent.setCheckInterval(0s);
        parent.setWithdrawAtDeinit(1min);  // a child withdraws nothing
        parent.init();
        lamp = parent.getServiceRegistryClient()->registerServiceAtRegistry(at(front.port()),
                                                                            service("lamp"));
        EXPECT_EQ(text(lamp.response), "OK/NONE");
    }

    void expectTheParentGoesOn() {
        const auto checks = entries().at(0).at("checks").get<int>();
        EXPECT_TRUE(eventually([&] { return entries().at(0).at("checks") > checks + 1; }));
        EXPECT_EQ(front.counters().closedByPeer, 0U);
        EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
        EXPECT_TRUE(entries().empty());
    }

    HostileServer front;
    SyncOrvRegistrationResponse lamp;
};

TEST_F(AForkedChild, MayDestroyAContextThatIsAtWorkInItsParent) {
    auto parent = std::make_unique<OrvServiceRegistryContext>();
    init(*parent);
    EXPECT_EQ(statusOfChild([&] { parent.reset(); }), 0);
    expectTheParentGoesOn();
}

TEST_F(AForkedChild, MayEndAContextThatIsAtWorkInItsParent) {
    init(context);
    EXPECT_EQ(statusOfChild([&] { context.deinit(); }), 0);
    expectTheParentGoesOn();
}

TEST_F(AForkedChild, MayExitWithAStaticContextThatIsAtWorkInItsParent) {
    static OrvServiceRegistryContext parent;
    init(parent);
    EXPECT_EQ(statusOfChild([] {}), 0);
    expectTheParentGoesOn();
    parent.deinit();
}

// The second withdrawal is logged under the client's lock; the child is forked there.
TEST_F(AForkedChild, MayDestroyAContextWhoseClientHeldItsLockWhenItWasForked) {
    std::optional<int> status;
    auto parent = std::make_unique<OrvServiceRegistryContext>();
    const auto forkWhenLocked = [&](const std::string& line) {
        if (line.find("not registered (anymore)") != std::string::npos) {
            status = statusOfChild([&] { parent.reset(); });
        }
    };
    init(*parent, std::make_shared<CallingLoggerFactory>(forkWhenLocked));
    EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
    EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
