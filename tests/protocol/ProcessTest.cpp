// The effects of the client on its process: threads, descriptors, the environment, the terminal.
//
// Threads: the test's, the client's and the server's.

#include "Descriptors.h"
#include "Process.h"
#include "ProtocolTest.h"

#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include <algorithm>
#include <cstdlib>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using testing::openDescriptors;
using testing::RefusedPort;
using testing::threadNames;
using testing::warning;

/// Sets an environment variable while the object lives.
class Variable {
  public:
    Variable(std::string name, const std::string& value) : name_(std::move(name)) {
        ::setenv(name_.c_str(), value.c_str(), 1);
    }
    ~Variable() { ::unsetenv(name_.c_str()); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

  private:
    const std::string name_;
};

class TheProcess : public ProtocolTest {
  protected:
    /// The threads that were not there before.
    std::vector<std::string> newThreads() const {
        const auto now = threadNames();
        std::vector<std::string> added;
        std::set_difference(now.begin(), now.end(), before_.begin(), before_.end(),
                            std::back_inserter(added));
        return added;
    }
    void registerMany(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            registerService("service-" + std::to_string(i));
        }
        EXPECT_THAT(outcomes->take(count), Each(kRegistered));
    }

    const std::vector<std::string> before_ = threadNames();
    const std::size_t descriptorsBefore_ = openDescriptors();
};

TEST_F(TheProcess, HasThreeMoreThreadsHoweverManyServicesThereAre) {
    const std::vector<std::string> three{"ORVX_HttpIO", "ORVX_SRCBExec", "ORVX_SRRExec"};
    context->enableCheck(true);
    context->setCheckInterval(seconds(1));
    start();
    EXPECT_TRUE(eventually([&] { return newThreads() == three; })) << "each names itself";
    registerMany(1);
    EXPECT_EQ(newThreads(), three);
    registerMany(300);
    EXPECT_EQ(newThreads(), three);
}

TEST_F(TheProcess, GetsItsThreadsAndDescriptorsBack) {
    for (int i = 0; i < 3; ++i) {
        start();
        registerMany(100);
        stop();
        ASSERT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
        EXPECT_THAT(newThreads(), ::testing::IsEmpty());
        EXPECT_EQ(openDescriptors(), descriptorsBefore_);
    }
}

TEST_F(TheProcess, GetsItsDescriptorsBackWhenNothingWorks) {
    start();
    for (const Script& answer : {Script("HTTP/1.1 201").close(), Script().reset(),
                                 Script("garbage\r\n\r\n"), Script(response(500)).close()}) {
        for (int i = 0; i < 10; ++i) {
            server.nextRequest(answer);
            outcome();
        }
    }
    stop();
    ASSERT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
    EXPECT_EQ(openDescriptors(), descriptorsBefore_);
}

TEST_F(TheProcess, KeepsItsProxySettingsForOthers) {
    const RefusedPort refusedPort;
    const std::string proxy = "http://127.0.0.1:" + std::to_string(refusedPort.port());
    const Variable lower("http_proxy", proxy);
    const Variable upper("HTTP_PROXY", proxy);
    const Variable all("all_proxy", proxy);
    const Variable allUpper("ALL_PROXY", proxy);
    const Variable none("no_proxy", "");
    start();
    expectItWorks();
    EXPECT_EQ(outcomeAt(registryAt(server.port(), "localhost")), kRegistered);
}

TEST_F(TheProcess, SeesNoSecretsInItsLog) {
    http.headers = {{"Authorization", "Bearer secret-token"}};
    http.requestTimeout = kShort;
    context->setLogLevel(utility::ILogger::LogLevel::Debug);
    start();
    for (const Script& answer :
         {Script("HTTP/1.1 201").close(), Script("garbage\r\n\r\n"), Script(response(401)),
          Script(response(201)), Script(created("x")), Script().silence()}) {
        EXPECT_THAT(outcomeOf(answer), Not(HasSubstr("secret")));
    }
    EXPECT_THAT(server.requests().front().header("Authorization"), "Bearer secret-token");
    EXPECT_GT(logged().size(), 6U);
    for (const testing::LogLine& line : logged()) {
        EXPECT_THAT(line.text, Not(HasSubstr("secret")));
    }
}

/// Clears a terminal, changes its title, and forges a line, unless it is escaped.
const std::string kHostile =
    "\x1b[2J\x1b]0;title\x07\r\n2026-01-31 12:00:00.123 ERROR forged\x9b"
    "31m\xC2\x9B\b\x7F\t\xFF\\";
/// The part of it that a header may contain.
const std::string kHostileLocation = "\x9b[2J\xC2\x9B forged\xFF\\";

TEST_F(TheProcess, GivesItsLoggerTheRegistrysTextsExactly) {
    const std::string body = kHostile + std::string("\0end", 4);
    start();
    EXPECT_EQ(outcomeOf(response(500, {}, body)), refused("500"));
    EXPECT_EQ(outcomeOf(created(kHostileLocation)), refused("201"));
    const Handle handle = registered("lamp");
    server.nextRequest(response(500, {}, body));
    EXPECT_EQ(outcomeOfWithdrawal(handle), refused("500"));
    EXPECT_THAT(logged(), ElementsAre(warning("response put request was not ok, status=500"),
                                      warning("error message from service registry=" + body),
                                      warning("Cannot parse service uuid from HTTP location: " +
                                              kHostileLocation),
                                      warning("response put request was not ok, status=201"),
                                      warning("response to delete request was not ok, status=500"),
                                      warning("error message from service registry=" + body)));
}

TEST_F(TheProcess, IsShownTheRegistrysTextsHarmlessly) {
    context->setLoggerFactory(nullptr);
    ::testing::internal::CaptureStderr();
    start();
    EXPECT_EQ(outcomeOf(response(500, {}, kHostile)), refused("500"));
    EXPECT_EQ(outcomeOf(created(kHostileLocation)), refused("201"));
    stop();
    const std::string shown = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 4) << shown;
    EXPECT_TRUE(std::all_of(shown.begin(), shown.end(), [](char c) {
        return c == '\n' || (c >= ' ' && c < '\x7F');
    })) << ::testing::PrintToString(shown);
    EXPECT_THAT(shown, HasSubstr("\\x1B[2J"));
    EXPECT_THAT(shown, HasSubstr("\\n2026-01-31"));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
