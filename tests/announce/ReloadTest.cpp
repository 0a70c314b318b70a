// The file of --from, which is read again while the program runs. Entered by the test's thread and
// those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>

namespace orvx::announce {
namespace {

class AReload : public AnnounceTest {
  protected:
    AReload() { passOnInFront(); }

    static json lamp(const std::string& name, const std::string& description) {
        return {{"name", name}, {"port", 1}, {"uri", "/" + name}, {"description", description}};
    }
    std::string write(const json& set) const { return folder.write("set.json", set.dump()); }
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
    /// The target of the requests about the entry with this path.
    std::string targetOf(const std::string& path) const {
        std::string target;
        for (const json& entry : entries()) {
            target = entry.at("path") == path ? "/" + entry.at("uuid").get<std::string>() : target;
        }
        return target;
    }
    auto requestsOf(const std::string& method, const std::string& target = "") const {
        const auto requests = front.requests();
        return std::count_if(requests.begin(), requests.end(), [&](const Request& request) {
            return request.method == method && (target.empty() || request.target == target);
        });
    }

    /// Changes the file of --from while the program runs, and expects that it is refused.
    void expectNotReloaded(const std::function<void(const std::string&)>& replace,
                           const std::string& reason) const {
        const auto file = write(json::array({lamp("same", "a")}));
        Announce announce(options(file));
        announce.awaitOutput("\"announced\"");
        std::filesystem::remove(file);
        replace(file);
        announce.signal(SIGHUP);
        announce.awaitOutput("\"not-reloaded\"");
        EXPECT_EQ(entries().size(), 1U);
        EXPECT_THAT(announce.stopped(0).output, HasSubstr(file + ": " + reason));
    }
    /// Removes a service while the answer to its DELETE is held back, has the withdrawal given up
    /// by `giveUp`, and answers the DELETE with an error before the command ends. Expects the exit
    /// status for an entry that may be left.
    void expectThatTheRemovedServiceIsLeft(const Words& timeouts,
                                           const std::function<void(Announce&)>& giveUp) {
        const auto file = write({lamp("same", "a"), lamp("lamp", "a")});
        Announce announce(options(file) + timeouts +
                          Words{"--ready", "none", "--stop-timeout", "3600"} +
                          shell("trap '' HUP TERM; echo up; read line; exit 0"));
        announce.awaitOutput("up\n");
        EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
        front.onRequest([this, removed = targetOf("/lamp")](const Request& request) {
            return request.target == removed
                       ? Script().waitForRelease("DELETE").send(testing::response(503))
                       : Script(passOn(request, registry.port()));
        });
        write(json::array({lamp("same", "a")}));
        announce.signal(SIGHUP);
        EXPECT_TRUE(eventually([this] { return requestsOf("DELETE") == 1; }));
        announce.signal(SIGTERM);
        giveUp(announce);
        announce.awaitErrors(R"("left","reason":"no answer","service":"lamp")");
        front.release("DELETE");
        announce.awaitErrors(
            R"("unreachable","reason":"DELETE: HTTP status 503","service":"lamp")");
        announce.endInput();
        announce.ended(123);
    }
    static void makeFifo(const std::string& file) { ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0); }

    const Folder folder;
};

TEST_F(AReload, AnnouncesWithdrawsAndUpdatesTheDifferenceOnly) {
    const auto file = write({lamp("same", "a"), lamp("changed", "a"), lamp("gone", "a")});
    const std::string status = folder.file("status.json");
    Announce announce(options(file) + Words{"--status-file", status});
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
    EXPECT_TRUE(eventually([&] {  // the file is replaced in one step
        return json::parse(contentOf(status)).at("summary") == "3 of 3 announced";
    }));
    announce.stopped(0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(AReload, TakesPlaceBeforeTheCommandIsReady) {
    const auto file = write({lamp("same", "a"), lamp("changed", "a"), lamp("gone", "a")});
    Announce announce(options(file) + Words{"--ready-command", "test -e " + folder.file("ready")} +
                      command());
    announce.awaitOutput("up\n");
    write({lamp("same", "a"), lamp("changed", "b"), lamp("new", "a")});
    announce.signal(SIGHUP);
    announce.awaitErrors(R"("added":["/new"],"changed":["/changed"],"event":"reloaded",)"
                         R"("removed":["/gone"])");
    folder.write("set.json", "");
    announce.signal(SIGHUP);
    announce.awaitErrors("\"not-reloaded\"");
    EXPECT_THAT(entries(), IsEmpty());
    folder.write("ready", "");
    const std::map<std::string, std::string> wanted{
        {"/same", "a"}, {"/changed", "b"}, {"/new", "a"}};
    EXPECT_TRUE(eventually([&] { return descriptions() == wanted; }));
    EXPECT_EQ(requestsOf("PUT"), 3);
    announce.stopped(0);
}

TEST_F(AReload, ChangesThePortsOfTheReadyCheck) {
    const testing::RefusedPort refused;
    json lamp{{"name", "lamp"}, {"port", refused.port()}};
    Announce announce(options(write(json::array({lamp}))) + command());
    announce.awaitOutput("up\n");
    lamp["port"] = service.port();
    write(json::array({lamp}));
    announce.signal(SIGHUP);
    announce.awaitErrors("\"announced\"");
    EXPECT_EQ(entries().at(0).at("service").at("port"), service.port());
    announce.stopped(0);
}

TEST_F(AReload, OfADescriptionLetsAnAttemptOfTheReadyCheckGoOn) {
    const auto log = folder.file("log");
    const auto gate = folder.file("gate");
    makeFifo(gate);
    json lamp{{"name", "lamp"}, {"port", service.port()}, {"description", "a"}};
    Announce announce(options(write(json::array({lamp}))) +
                      Words{"--ready-command", "echo >>" + log + "; read line <" + gate} +
                      command());
    announce.awaitOutput("up\n");
    EXPECT_TRUE(eventually([&] { return contentOf(log) == "\n"; }));
    lamp["description"] = "b";
    write(json::array({lamp}));
    announce.signal(SIGHUP);
    announce.awaitErrors("\"reloaded\"");
    std::ofstream(gate) << "ready\n";
    announce.awaitErrors("\"announced\"");
    EXPECT_EQ(contentOf(log), "\n") << "one attempt";
    announce.stopped(0);
}

TEST_F(AReload, OfAFileThatIsWrongChangesNothing) {
    const auto file = write({lamp("same", "a"), lamp("gone", "a")});
    Announce announce(options(file));
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    folder.write("set.json", R"([{"name":"same"}])");
    announce.signal(SIGHUP);
    announce.awaitOutput("\"not-reloaded\"");
    EXPECT_EQ(entries().size(), 2U);
    EXPECT_THAT(announce.stopped(0).output, HasSubstr("set.json:1:2: the service has no port"));
    EXPECT_EQ(requestsOf("PUT"), 2);
}

TEST_F(AReload, AnnouncesAServiceAgainThatIsStillBeingWithdrawn) {
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

TEST_F(AReload, ThatRemovesAServiceWhoseWithdrawalTakesTooLongIsReportedByTheExitStatus) {
    expectThatTheRemovedServiceIsLeft({"--withdraw-timeout", "0.2"}, [](Announce&) {});
}

TEST_F(AReload, ThatRemovesAServiceWhoseWithdrawalIsGivenUpIsReportedByTheExitStatus) {
    expectThatTheRemovedServiceIsLeft({"--withdraw-timeout", "3600"}, [](Announce& announce) {
        announce.awaitErrors("\"stopping\"");
        announce.signal(SIGTERM);
    });
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

TEST_F(AReload, ThatIsRefusedIsToldWithTheReasonAlthoughLaterRequestsSucceed) {
    const auto file = write({lamp("same", "a"), lamp("lamp", "a")});
    Announce announce(options(file));
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    front.onRequest([this, puts = 0](const Request& request) mutable {
        const bool isFirst = request.method == "PUT" && ++puts == 1;
        return isFirst ? testing::response(400) : passOn(request, registry.port());
    });
    write({lamp("same", "a"), lamp("lamp", "b")});
    announce.signal(SIGHUP);
    announce.awaitOutput("\"event\":\"reachable\"");
    announce.signal(SIGUSR1);
    announce.awaitOutput("\"state\":\"refused\"");
    json status;
    for (const json& line : linesOf(announce.stopped(1).output)) {
        status = line.value("state", "") == "refused" ? line : status;
    }
    EXPECT_EQ(status.value("reason", ""), "HTTP 400") << status;
}

TEST_F(AReload, OfAFileThatIsNestedTooDeeplyChangesNothing) {
    const std::size_t depth = 100'000;
    const auto file = write(json::array({lamp("same", "a")}));
    Announce announce(options(file));
    announce.awaitOutput("\"announced\"");
    folder.write("set.json", R"([{"name":"same","port":1,"properties":{"list":)" +
                                 std::string(depth, '[') + std::string(depth, ']') + "}}]");
    announce.signal(SIGHUP);
    announce.awaitOutput("\"not-reloaded\"");
    EXPECT_EQ(entries().size(), 1U);
    EXPECT_THAT(announce.stopped(0).output, HasSubstr("set.json:1:144: nested too deeply"));
}

TEST_F(AReload, OfAFolderChangesNothing) {
    expectNotReloaded([](const auto& file) { std::filesystem::create_directory(file); },
                      "not a regular file");
}

TEST_F(AReload, OfAFifoWithoutAWriterDoesNotWait) {
    expectNotReloaded(makeFifo, "not a regular file");
}

TEST_F(AReload, OfAHugeFileChangesNothing) {
    expectNotReloaded(
        [](const auto& file) {
            std::ofstream(file).close();
            std::filesystem::resize_file(file, (16 << 20) + 1);
        },
        "larger than 16 MiB");
}

TEST_F(AReload, OfATokenFileThatIsAFifoKeepsTheTokenAndDoesNotWait) {
    const auto token = folder.write("token", "secret\n");
    Announce announce(options(write(json::array({lamp("same", "a")}))) +
                      Words{"--token-file", token});
    announce.awaitOutput("\"announced\"");
    std::filesystem::remove(token);
    makeFifo(token);
    announce.signal(SIGHUP);
    announce.awaitOutput("\"reloaded\"");
    EXPECT_THAT(announce.stopped(0).output,
                AllOf(HasSubstr("\"no-token\""), HasSubstr(token + ": not a regular file")));
    for (const Request& request : front.requests()) {
        EXPECT_EQ(request.header("Authorization"), "Bearer secret") << request.method;
    }
}

TEST_F(AReload, OfAPipeFromTheShellIsRefusedAndTheStartIsNot) {
    const auto file = write(json::array({lamp("same", "a")}));
    ChildProcess announce(
        "/bin/bash", Words{"-c", "exec \"$@\" --from <(cat " + file + ")", "bash",
                           paths::kAnnounceProgram, "--json", "--registry", urlOf(front.port())});
    announce.awaitOutput("\"announced\"");
    announce.signal(SIGHUP);
    announce.awaitOutput("not a regular file");
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
}

TEST_F(AReload, HasAFirstReadThatNamesAFileThatCannotBeRead) {
    EXPECT_THAT(Announce(options("/")).ended(125).errors,
                HasSubstr("--from: cannot read /: Is a directory"));
    const auto file = write(json::array({lamp("same", "a")}));
    EXPECT_THAT(Announce(options(file) + Words{"--token-file", "/"}).ended(125).errors,
                HasSubstr("/: Is a directory"));
}

}  // namespace
}  // namespace orvx::announce
