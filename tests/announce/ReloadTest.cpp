// The file of --from, read again while the program runs.
// Entered by the test's thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"

#include <algorithm>
#include <map>

namespace orvx::announce {
namespace {

class AReload : public AnnounceTest {
  protected:
    AReload() { passOnInFront(); }

    static json lamp(const std::string& name, const std::string& description) {
        return {{"name", name}, {"port", 1}, {"uri", "/" + name}, {"description", description}};
    }
    std::string write(const json& set) const { return folder.file("set.json", set.dump()); }
    Words options(const std::string& file) const {
        return {"--json",           "--registry", urlOf(front.port()), "--from", file,
                "--check-interval", "3600"};
    }
    /// The descriptions of the entries, by path.
    std::map<std::string, std::string> descriptions() const {
        std::map<std::string, std::string> found;
        for (const json& entry : entries()) {
            found[entry.at("path")] = entry.at("service").at("description");
        }
        return found;
    }
    auto requestsOf(const std::string& method, const std::string& target = "") const {
        const auto requests = front.requests();
        return std::count_if(requests.begin(), requests.end(), [&](const Request& request) {
            return request.method == method && (target.empty() || request.target == target);
        });
    }

    const Folder folder;
};

TEST_F(AReload, AnnouncesWithdrawsAndUpdatesTheDifferenceOnly) {
    const auto file = write({lamp("same", "a"), lamp("changed", "a"), lamp("gone", "a")});
    Announce announce(options(file));
    EXPECT_TRUE(eventually([this] { return entries().size() == 3; }));
    write({lamp("same", "a"), lamp("changed", "b"), lamp("new", "a")});
    announce.signal(SIGHUP);
    announce.awaitOutput(R"("added":["/new"],"changed":["/changed"],"event":"reloaded",)"
                         R"("removed":["/gone"])");
    const std::map<std::string, std::string> wanted{
        {"/same", "a"}, {"/changed", "b"}, {"/new", "a"}};
    EXPECT_TRUE(eventually([&] { return descriptions() == wanted; }));
    EXPECT_EQ(requestsOf("PUT", "/same"), 1);
    EXPECT_EQ(requestsOf("PUT", "/changed"), 2);
    EXPECT_EQ(requestsOf("DELETE"), 1);
    announce.signal(SIGUSR1);
    announce.awaitOutput("\"summary\":\"3 of 3 announced\"");
    announce.stopped(0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(AReload, OfAFileThatIsWrongChangesNothing) {
    const auto file = write({lamp("same", "a"), lamp("gone", "a")});
    Announce announce(options(file));
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    folder.file("set.json", R"([{"name":"same"}])");
    announce.signal(SIGHUP);
    announce.awaitOutput("\"not-reloaded\"");
    EXPECT_EQ(entries().size(), 2U);
    EXPECT_THAT(announce.stopped(0).output, HasSubstr("set.json:1:2: the service has no port"));
    EXPECT_EQ(requestsOf("PUT"), 2);
}

TEST_F(AReload, AnnouncesAgainWhatIsStillBeingWithdrawn) {
    const auto file = write({lamp("same", "a"), lamp("lamp", "a")});
    Announce announce(options(file));
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    holdBack("DELETE");
    write(json::array({lamp("same", "a")}));
    announce.signal(SIGHUP);
    EXPECT_TRUE(eventually([this] { return requestsOf("DELETE") == 1; }));
    write({lamp("same", "a"), lamp("lamp", "b")});
    announce.signal(SIGHUP);
    announce.awaitOutput(R"("added":["/lamp"])");
    passOnInFront();
    front.release("DELETE");
    const std::map<std::string, std::string> wanted{{"/same", "a"}, {"/lamp", "b"}};
    EXPECT_TRUE(eventually([&] { return descriptions() == wanted; }));
    announce.stopped(0);
}

TEST_F(AReload, OfADescriptionWithoutAnAnswerYetAnnouncesTheNewOne) {
    holdBack("PUT");
    const auto file = write(json::array({lamp("lamp", "a")}));
    Announce announce(options(file));
    ASSERT_TRUE(front.waitForRequests(1));
    write(json::array({lamp("lamp", "b")}));
    announce.signal(SIGHUP);
    announce.awaitOutput("\"reloaded\"");
    passOnInFront();
    front.release("PUT");
    const std::map<std::string, std::string> wanted{{"/lamp", "b"}};
    EXPECT_TRUE(eventually([&] { return descriptions() == wanted; }));
    EXPECT_THAT(announce.stopped(0).output, Not(HasSubstr("refused")));
}

}  // namespace
}  // namespace orvx::announce
