// Threads that cannot be created: tested in a child process of a separate user with a limited
// number of threads. Only root can become that user.
#include "HostileServer.h"
#include "Recorder.h"
#include "RecordingLogger.h"
#include "RunningThreads.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>

namespace orvx::serviceregistryclient {
namespace {

using testing::HostileServer;
using testing::Recorder;
using testing::response;

std::size_t threads() {
    return testing::runningThreads().size();
}

/// Limits the process to this many more threads than it has now.
void allow(std::size_t more) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NPROC, &limit);
    limit.rlim_cur = threads() + more;
    ::setrlimit(RLIMIT_NPROC, &limit);
}

/// Runs `act` in a child process with a user that has no other process. Returns the wait status: 0
/// if `act` returns true.
int inProcessOfItsOwn(const std::function<bool()>& act) {
    const pid_t child = ::fork();
    if (child == 0) {
        const uid_t user = 100'000 + static_cast<uid_t>(::getpid());
        ::_exit(::setresuid(user, user, user) == 0 && act() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

/// A registry, and a context whose threads will fail to start.
struct Client {
    Client() {
        registry.onRequest([](const auto&) { return response(201, {{"Location", "/1"}}); });
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.enableCheck(false);
    }
    bool works() {
        context.getServiceRegistryClient()->registerServiceAtRegistry(
            common::ServiceInfo("registry", "127.0.0.1", registry.port()),
            std::make_shared<common::ServiceCreate>(
                std::make_unique<common::XObject>("", "lamp", "")),
            [this](const OrvRegistrationResponse& outcome) {
                told.add(OrvRegistrationResponse::statusString(outcome.status));
            });
        return told.next() == "OK";
    }
    /// Whether init() throws with this many more threads and leaves none, and succeeds with more.
    bool failsAndRecovers(std::size_t more) {
        const std::size_t before = threads();
        allow(more);
        try {
            context.init();
            return false;
        } catch (const std::exception&) {
        }
        const bool isClean = threads() == before && !context.isInitiated();
        allow(100);
        context.init();
        return isClean && works();
    }

    HostileServer registry;
    Recorder told;
    OrvServiceRegistryContext context;
};

class AProcessOutOfThreads : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root can become another user";
        }
    }
};

TEST_F(AProcessOutOfThreads, GetsAnExceptionWhenTheRequestsHaveNoneAndLaterAClient) {
    EXPECT_EQ(inProcessOfItsOwn([] { return Client().failsAndRecovers(0); }), 0);
}

TEST_F(AProcessOutOfThreads, SaysWhyItLooksUpNoName) {
    EXPECT_EQ(inProcessOfItsOwn([] {
                  Client client;
                  client.context.enableRetry(false);
                  client.context.init();
                  allow(0);
                  client.context.getServiceRegistryClient()->registerServiceAtRegistry(
                      common::ServiceInfo("registry", "registry.invalid", 80),
                      std::make_shared<common::ServiceCreate>(
                          std::make_unique<common::XObject>("", "lamp", "")),
                      [&](const OrvRegistrationResponse& outcome) {
                          client.told.add(outcome.httpResponse->getCause());
                      });
                  return client.told.next() ==
                         "the host registry.invalid cannot be looked up: Resource temporarily "
                         "unavailable";
              }),
              0);
}

TEST_F(AProcessOutOfThreads, EndsWithALineWhenTheCallbacksHaveNone) {
    ::testing::internal::CaptureStderr();
    const int status = inProcessOfItsOwn([] {
        Client client;
        client.context.setLoggerFactory(nullptr);
        allow(1);
        client.context.init();
        return true;
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    const std::string output = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(output.find("OrvxServiceRegistryClient ends the process: its callback thread cannot "
                          "be started: "),
              std::string::npos)
        << output;
}

TEST_F(AProcessOutOfThreads, WritesItsLogBeforeItEndsForLackOfACallbackThread) {
    struct Factory : testing::RecordingLoggerFactory {
        void flush() override { ::_exit(takeLines().empty() ? 1 : 42); }
    };
    const int status = inProcessOfItsOwn([] {
        Client client;
        client.context.setLoggerFactory(std::make_shared<Factory>());
        allow(1);
        client.context.init();
        return true;
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status;
}

TEST_F(AProcessOutOfThreads, GetsAnExceptionWhenTheTimerHasNoneAndLaterAClient) {
    EXPECT_EQ(inProcessOfItsOwn([] { return Client().failsAndRecovers(2); }), 0);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
