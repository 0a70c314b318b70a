// The end of an announcement, in whatever state the registry is. Entered by the test's thread and
// those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <iomanip>
#include <sstream>

namespace orvx::announce {
namespace {

using AWithdrawal = AnnounceTest;

/// Sufficient for a busy machine, and far below the withdrawal time-out of 3,600 s.
constexpr auto kSoon = 4s;

/// Whether a process of this machine waits for a connection to this port.
bool isConnectingTo(std::uint16_t port) {
    std::ostringstream wanted;
    wanted << std::uppercase << std::hex << std::setfill('0') << ':' << std::setw(4) << port
           << " 02 ";  // SYN_SENT
    return contentOf("/proc/net/tcp").find(wanted.str()) != std::string::npos;
}

TEST_F(AWithdrawal, WaitsForTheFirstPutThatIsOut) {
    holdBack("PUT");
    Announce announce(echo(front.port()) + command({"3", urlOf(registry.port())}));
    ASSERT_TRUE(front.waitForRequests(1));
    announce.awaitOutput("up\n");
    announce.signal(SIGTERM);
    announce.awaitErrors(" withdrawing ");
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    front.release("PUT");
    EXPECT_EQ(announce.ended(3).output, "up\ngot SIGTERM, entries: 0\n");
}

TEST_F(AWithdrawal, OfAPutThatIsNeverAnsweredEndsWithinItsBound) {
    front.onRequest([](const Request&) { return Script().silence(); });
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "0.2"} + command({"3"}));
    ASSERT_TRUE(front.waitForRequests(1));
    announce.awaitOutput("up\n");
    EXPECT_THAT(announce.stopped(3).errors, HasSubstr(" left reason=\"no answer\" "));
}

TEST_F(AWithdrawal, ThatIsNeverAnsweredEndsWithinItsBound) {
    holdBack("DELETE");
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "0.2"});
    announce.awaitOutput(" announced ");
    EXPECT_THAT(announce.stopped(1).output, HasSubstr(" left "));
}

TEST_F(AWithdrawal, FromARegistryThatWasNeverReachedIsShort) {
    const testing::RefusedPort refused;
    Announce announce(echo(refused.port()) + Words{"--withdraw-timeout", "3600"} + command({"3"}));
    announce.awaitErrors("CONNECT_FAILED");
    announce.awaitOutput("up\n");
    const auto begin = steady_clock::now();
    EXPECT_THAT(announce.stopped(3).errors, HasSubstr(" withdrawn "));
    EXPECT_LT(steady_clock::now() - begin, kSoon);
}

TEST_F(AWithdrawal, FromARegistryThatWasNeverReachedEndsBeforeItsBound) {
    const testing::RefusedPort refused;
    const std::uint16_t port = refused.port();
    Announce announce(echo(port) + Words{"--withdraw-timeout", "1"});
    announce.awaitOutput("CONNECT_FAILED");
    const testing::BlackHole silent(testing::Loopback::V4, port);
    EXPECT_TRUE(eventually([&] { return isConnectingTo(port); }));
    EXPECT_THAT(announce.stopped(0).output, Not(HasSubstr(" left ")));
}

TEST_F(AWithdrawal, FromARegistryThatWasNeverReachedDoesNotWaitForTheAttemptThatIsUnderWay) {
    const testing::RefusedPort refused;
    const std::uint16_t port = refused.port();
    Announce announce(echo(port) + Words{"--withdraw-timeout", "3600"} + command({"3"}));
    announce.awaitErrors("CONNECT_FAILED");
    announce.awaitOutput("up\n");
    const testing::BlackHole silent(testing::Loopback::V4, port);
    EXPECT_TRUE(eventually([&] { return isConnectingTo(port); }));
    const auto begin = steady_clock::now();
    EXPECT_THAT(announce.stopped(3).errors, HasSubstr(" withdrawn "));
    EXPECT_LT(steady_clock::now() - begin, kSoon);
}

TEST_F(AWithdrawal, FromARegistryThatNeitherAcceptsNorRefusesAConnectionTakesItsWholeTime) {
    const testing::BlackHole silent;
    Announce announce(echo(silent.port()) + Words{"--withdraw-timeout", "1"});
    EXPECT_TRUE(eventually([&] { return isConnectingTo(silent.port()); }));
    EXPECT_THAT(announce.stopped(1).output,
                AllOf(HasSubstr(" left reason=\"no answer\" "), Not(HasSubstr(" withdrawn "))));
}

TEST_F(AWithdrawal, FromARegistryThatWasNeverReachedEndsTheAttemptThatIsUnderWay) {
    const testing::RefusedPort refused;
    const std::uint16_t port = refused.port();
    Announce announce(echo(port) + Words{"--withdraw-timeout", "3600", "--stop-timeout", "3600"} +
                      shell("trap '' TERM; echo up; read line; exit 3"));
    announce.awaitErrors("CONNECT_FAILED");
    announce.awaitOutput("up\n");
    const testing::BlackHole silent(testing::Loopback::V4, port);
    EXPECT_TRUE(eventually([&] { return isConnectingTo(port); }));
    announce.signal(SIGTERM);
    announce.awaitErrors(" withdrawn ");
    EXPECT_FALSE(isConnectingTo(port));
    announce.endInput();
    announce.ended(3);
}

TEST_F(AWithdrawal, WaitsForAPutThatIsOutAlthoughEarlierOnesCouldNotConnect) {
    front.stopListening();
    holdBack("PUT");
    Announce announce(echo(front.port()) +
                      Words{"--retry-interval", "0.01", "--withdraw-timeout", "1"});
    announce.awaitOutput("CONNECT_FAILED");
    front.listenAgain();
    ASSERT_TRUE(front.waitForRequests(1));
    EXPECT_THAT(announce.stopped(1).output,
                AllOf(HasSubstr(" left "), Not(HasSubstr(" withdrawn "))));
    EXPECT_EQ(entries().size(), 1U);
}

TEST_F(AWithdrawal, WaitsForAPutToAUnixSocketAlthoughEarlierOnesCouldNotConnect) {
    const Folder folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    folder.file("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    Announce announce(echo() + Words{"--unix-socket", address.sun_path, "--retry-interval", "0.01",
                                     "--withdraw-timeout", "1"});
    announce.awaitOutput("CONNECT_FAILED");
    const testing::Socket listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(listener.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.fd(), 1), 0);
    ASSERT_TRUE(testing::waitForEvents(listener, POLLIN, 10000));
    const testing::Socket connection(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_THAT(announce.stopped(1).output,
                AllOf(HasSubstr(" left "), Not(HasSubstr(" withdrawn "))));
}

TEST_F(AWithdrawal, FromARegistryThatHasDiedEndsWithinItsBound) {
    passOnInFront();
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "0.3"} + command({"3"}));
    announce.awaitErrors(" announced ");
    announce.awaitOutput("up\n");
    front.onRequest([](const Request&) { return Script().reset(); });
    front.stopListening();
    EXPECT_THAT(announce.stopped(3).errors, HasSubstr(" left "));
}

TEST_F(AWithdrawal, IsRepeatedWhenItIsRefused) {
    passOnInFront();
    Announce announce(echo(front.port()) + Words{"--retry-interval", "0.01"});
    announce.awaitOutput(" announced ");
    front.nextRequest(testing::response(503));
    front.nextRequest(testing::response(500));
    announce.stopped(0);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AWithdrawal, ThatIsForbiddenIsNotWaitedFor) {
    answerInFront("DELETE", testing::response(403, {}, "not yours"));
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "3600"});
    announce.awaitOutput(" announced ");
    EXPECT_THAT(announce.stopped(1).output, HasSubstr(" left reason=\"HTTP 403: not yours\" "));
}

TEST_F(AWithdrawal, OfAnEntryThatIsGoneIsDone) {
    passOnInFront();
    for (const int status : {204, 404}) {
        Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "3600"});
        announce.awaitOutput(" announced ");
        front.nextRequest(testing::response(status));
        EXPECT_THAT(announce.stopped(0).output, HasSubstr(" withdrawn "));
    }
}

TEST_F(AWithdrawal, TakesPlaceWhenTheCommandDies) {
    passOnInFront();
    holdBack("DELETE");
    Announce announce(echo(front.port()) + shell("read line; kill -ABRT $$"));
    announce.awaitErrors(" announced ");
    announce.endInput();
    announce.awaitErrors(" withdrawing ");
    EXPECT_TRUE(eventually([this] { return entries().empty(); }));
    front.release("DELETE");
    EXPECT_THAT(announce.ended(128 + SIGABRT).errors, HasSubstr(" withdrawn "));
}

TEST_F(AWithdrawal, ThatIsNotAnsweredEndsWithinItsBoundAfterTheCommandDied) {
    holdBack("DELETE");
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "0.2"} +
                      shell("read line; exit 8"));
    announce.awaitErrors(" announced ");
    announce.endInput();
    EXPECT_THAT(announce.ended(8).errors, HasSubstr(" left "));
}

TEST_F(AWithdrawal, ThatFailsIsReportedByTheExitStatusAfterACommandThatSucceeds) {
    holdBack("DELETE");
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "0.2"} +
                      shell("read line; exit 0"));
    announce.awaitErrors(" announced ");
    announce.endInput();
    announce.ended(123);
}

TEST_F(AWithdrawal, AfterTheEndOfTheCommandIsNotGivenUpForTheFirstSignal) {
    holdBack("DELETE");
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "3600"} +
                      shell("read line; exit 8"));
    announce.awaitErrors(" announced ");
    announce.endInput();
    announce.awaitErrors(" withdrawing ");
    EXPECT_TRUE(eventually([this] { return entries().empty(); }));
    announce.signal(SIGTERM);
    announce.awaitErrors(" stopping ");
    front.release("DELETE");
    EXPECT_THAT(announce.ended(8).errors,
                AllOf(HasSubstr(" withdrawn "), Not(HasSubstr(" left "))));
}

TEST_F(AWithdrawal, ThatWasGivenUpIsMadeUpForWhileTheCommandEnds) {
    holdBack("PUT");
    Announce announce(echo(front.port()) +
                      Words{"--withdraw-timeout", "0.2", "--stop-timeout", "3600"} +
                      shell("trap '' TERM; echo up; read line; exit 3"));
    ASSERT_TRUE(front.waitForRequests(1));
    announce.awaitOutput("up\n");
    announce.signal(SIGTERM);
    announce.awaitErrors(" left ");
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    front.release("PUT");
    announce.awaitErrors(" withdrawn ");
    EXPECT_TRUE(entries().empty());
    announce.endInput();
    EXPECT_THAT(announce.ended(3).errors, Not(HasSubstr(" announced ")));
}

TEST_F(AWithdrawal, IsNotDelayedByOutputThatIsNotRead) {
    const std::string fillStandardError =
        "import os, signal\n"
        "end = os.open('/proc/self/fd/2', os.O_WRONLY | os.O_NONBLOCK)\n"
        "try:\n"
        "    while True: os.write(end, b'x')\n"
        "except BlockingIOError: print('full', flush=True)\n"
        "signal.pause()\n";
    Announce announce(echo() + Words{"--", "python3", "-c", fillStandardError});
    announce.awaitOutput("full\n");
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    announce.signal(SIGTERM);
    EXPECT_TRUE(eventually([this] { return entries().empty(); }));
    EXPECT_TRUE(eventually([&] { return ::waitpid(announce.pid(), nullptr, WNOHANG) != 0; }));
}

}  // namespace
}  // namespace orvx::announce
