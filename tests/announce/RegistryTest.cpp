// Failures of the registry while a service is announced, and the reaction of the program. Entered
// by the test's thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"

#include <algorithm>
#include <atomic>

namespace orvx::announce {
namespace {

using AnAnnouncement = AnnounceTest;

const Words kQuick{"--check-interval", "1", "--retry-interval", "0.01"};

TEST_F(AnAnnouncement, IsMadeWhenADeadRegistryComesToLife) {
    passOnInFront();
    front.stopListening();
    const Folder folder;
    const auto status = folder.file("status.json");
    Announce announce(echo(front.port()) + kQuick + Words{"--status-file", status} +
                      shell("read line; exit 8"));
    announce.awaitErrors(
        " unreachable reason=\"PUT: CONNECT_FAILED: connection refused by 127.0.0.1:" +
        std::to_string(front.port()) + "\" ");
    EXPECT_TRUE(eventually([&] {
        const json now = json::parse(contentOf(status), nullptr, false);
        return now.is_object() && now.at("services").at(0).value("attempts", 0) > 2;
    }));
    front.listenAgain();
    announce.awaitErrors(" reachable ");
    announce.awaitErrors(" announced ");
    announce.endInput();
    announce.ended(8);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, IsRepeatedWhileTheRegistryIsNotWell) {
    passOnInFront();
    front.nextRequest(testing::response(503));
    front.nextRequest(testing::response(500));
    Announce announce(echo(front.port()) + kQuick);
    announce.awaitOutput(" announced ");
    announce.signal(SIGUSR1);
    announce.awaitOutput("\"httpStatus\":500");
    announce.stopped(0);
}

TEST_F(AnAnnouncement, IsMadeAgainWhenTheEntryIsLost) {
    Announce announce(echo() + kQuick);
    announce.awaitOutput(" announced ");
    loseTheEntry();
    announce.awaitOutput(" lost ");
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    announce.stopped(0);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, ThatIsRefusedSaysWhyAndEndsWithoutACommand) {
    answerInFront("PUT", testing::response(400, {}, R"({"error":"no\u0007such\nname"})"));
    const auto result = Announce(echo(front.port())).ended(1);
    EXPECT_THAT(result.output, AllOf(HasSubstr(" refused "), HasSubstr("HTTP 400: "),
                                     HasSubstr("no\\\\u0007such")));
}

TEST_F(AnAnnouncement, ThatIsRefusedLetsTheCommandRunAndIsMadeAgainOnHangUp) {
    passOnInFront();
    front.nextRequest(testing::response(403));
    Announce announce(echo(front.port()) + command({"3"}));
    announce.awaitErrors(" refused ");
    announce.awaitOutput("up\n");
    announce.signal(SIGHUP);
    announce.awaitErrors(" announced ");
    announce.stopped(3);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, ThatIsRefusedLeavesNoEntryOfAnEarlierAttempt) {
    std::atomic<int> attempts{0};
    front.onRequest([&](const Request& request) {
        const int attempt = request.method == "PUT" ? ++attempts : 0;
        const std::string answer = attempt == 2 ? "" : passOn(request, registry.port());
        return attempt == 1   ? testing::response(503)
               : attempt == 2 ? testing::response(403)
                              : answer;
    });
    const auto result = Announce(echo(front.port()) + kQuick).ended(1);
    EXPECT_THAT(result.output, AllOf(HasSubstr(" refused "), Not(HasSubstr(" left "))));
    EXPECT_EQ(attempts, 3);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, ThatIsRefusedMayLeaveAnEntryOfAnEarlierAttempt) {
    front.nextRequest(testing::response(503));
    front.onRequest([](const Request&) { return testing::response(403); });
    const auto result =
        Announce(echo(front.port()) + kQuick + Words{"--withdraw-timeout", "0.2"}).ended(1);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr(" refused "), HasSubstr(" left reason=\"HTTP 403\" ")));
}

TEST_F(AnAnnouncement, KeepsBeingCheckedAlthoughACheckWasNotAnswered) {
    holdBack("HEAD");
    Announce announce(echo(front.port()) + kQuick + Words{"--check-timeout", "0.1"});
    announce.awaitOutput(" announced ");
    announce.awaitOutput(" unreachable reason=\"HEAD: TIMED_OUT: no answer from 127.0.0.1:" +
                         std::to_string(front.port()) + " in time\"");
    announce.signal(SIGUSR1);
    announce.awaitOutput(" state=unreachable ");
    front.release("HEAD");
    announce.awaitOutput(" reachable ");
    EXPECT_TRUE(eventually([this] { return entries().at(0).at("checks") >= 2; }));
    const auto requests = front.requests();
    EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                            [](const Request& request) { return request.method == "PUT"; }),
              1);
    announce.stopped(0);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, OfTheNameOfAnotherOneIsTheSameEntryAndComesBackWhenThatOneLeaves) {
    Announce first(echo() + kQuick);
    first.awaitOutput(" announced ");
    const json before = entries();
    Announce second(echo() + kQuick);
    second.awaitOutput(" announced ");
    ASSERT_EQ(entries().size(), 1U);
    EXPECT_EQ(entries().at(0).at("uuid"), before.at(0).at("uuid"));
    second.stopped(0);
    first.awaitOutput(" lost ");
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    first.stopped(0);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, TakesOverTheEntryOfAProgramThatWasKilled) {
    Announce killed(echo());
    killed.awaitOutput(" announced ");
    killed.signal(SIGKILL);
    killed.wait();
    EXPECT_EQ(entries().size(), 1U);
    Announce announce(echo());
    announce.awaitOutput(" announced ");
    EXPECT_EQ(entries().size(), 1U);
    announce.stopped(0);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, OfASetIsWithdrawnAsAWhole) {
    const Folder folder;
    json set = json::array();
    for (int i = 0; i < 20; ++i) {
        set.push_back({{"name", "lamp" + std::to_string(i)}, {"port", 8000 + i}});
    }
    Announce announce(
        {"--registry", urlOf(registry.port()), "--from", folder.write("set.json", set.dump())});
    EXPECT_TRUE(eventually([this] { return entries().size() == 20; }));
    announce.stopped(0);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AnAnnouncement, OfASetIsNotHeldUpByOneServiceThatIsNeverAnswered) {
    front.onRequest([this](const Request& request) {
        return request.target == "/bad/127.0.0.1:1" ? Script().silence()
                                                    : Script(passOn(request, registry.port()));
    });
    const Folder folder;
    const auto file =
        folder.write("set.json", R"([{"name":"bad","port":1},{"name":"good","port":2}])");
    Announce announce(
        {"--registry", urlOf(front.port()), "--from", file, "--withdraw-timeout", "0.2"});
    announce.awaitOutput(" announced service=good ");
    const auto result = announce.stopped(1);
    EXPECT_THAT(result.output, AllOf(HasSubstr(" withdrawn service=good"), HasSubstr(" left ")));
    EXPECT_TRUE(entries().empty());
}

}  // namespace
}  // namespace orvx::announce
