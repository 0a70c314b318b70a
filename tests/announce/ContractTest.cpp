// Programs read the events and the status file, so both must match the schema and the manual page.
// Entered by the test's thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

#include <set>
#include <sstream>

namespace orvx::announce {
namespace {

class TheContract : public AnnounceTest {
  protected:
    static inline const std::string kSchema =
        std::string(paths::kAnnounceSources) + "/orvx-announce.schema.json";

    /// The faults of the documents, one in each line.
    std::string faultsOf(const std::string& documents) const {
        const auto result =
            ChildProcess("/usr/bin/python3", {std::string(paths::kAnnounceTests) + "/validate.py",
                                              kSchema, folder.write("documents", documents)})
                .wait();
        EXPECT_EQ(exitCode(result), 0) << result.errors;
        return result.output;
    }

    /// Collects the names of all events in the schema, and all keys of "properties".
    static void collect(const json& schema, std::set<std::string>& events,
                        std::set<std::string>& keys) {
        if (!schema.is_structured()) {
            return;
        }
        for (const auto& [key, value] : schema.items()) {
            collect(value, events, keys);
            if (key == "properties") {
                for (const auto& [name, rule] : value.items()) {
                    keys.insert(name);
                }
                const json event = value.value("event", json::object());
                const json one = event.contains("const") ? json{event["const"]}
                                                         : event.value("enum", json::array());
                for (const json& name : one) {
                    events.insert(name.get<std::string>());
                }
            }
        }
    }

    Announce& run(Words arguments) {
        return *programs_.emplace_back(
            std::make_unique<Announce>(Words{"--json"} + std::move(arguments)));
    }
    void take(const std::string& lines) { lines_ += lines; }

    std::vector<std::unique_ptr<Announce>> programs_;
    std::string lines_;
    const Folder folder;
};

TEST_F(TheContract, IsKeptByEveryEvent) {
    const Words quick{"--check-interval", "1", "--retry-interval", "0.01"};
    passOnInFront();
    {
        Announce& all = run(echo(front.port()) + quick +
                            Words{"--stop-timeout", "0.1", "--health-tcp", "--health-interval",
                                  "0.05", "--health-failures", "1"} +
                            command({"never"}));
        all.awaitErrors("\"announced\"");
        loseTheEntry();
        all.awaitErrors("\"lost\"");
        EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
        answerInFront("HEAD", testing::response(503));
        all.awaitErrors("\"unreachable\"");
        all.signal(SIGUSR1);
        all.awaitErrors("\"status\"");
        passOnInFront();
        all.awaitErrors("\"reachable\"");
        service.stopListening();
        all.awaitErrors("\"unhealthy\"");
        service.listenAgain();
        all.awaitErrors("\"healthy\"");
        all.awaitOutput("up\n");
        take(all.stopped(128 + SIGKILL).errors);
    }
    take(run(echo() + Words{"--", "/there/is/none"}).ended(127).errors);
    take(run(echo() + Words{"--ready-timeout", "0.1", "--ready-command", "false"} +
             shell("read line"))
             .ended(124)
             .errors);
    {
        holdBack("DELETE");
        const auto token = folder.write("token", "secret");
        Announce& left =
            run(echo(front.port()) + Words{"--withdraw-timeout", "0.1", "--token-file", token,
                                           "--status-file", folder.file("none/status.json")});
        left.awaitOutput("\"announced\"");
        folder.write("token", "");
        left.signal(SIGHUP);
        left.awaitOutput("\"no-token\"");
        take(left.stopped(1).output);
    }
    {
        const auto file = folder.write("set.json", R"([{"name":"a","port":1}])");
        Announce& again = run({"--registry", urlOf(registry.port()), "--from", file});
        again.awaitOutput("\"announced\"");
        folder.write("set.json", R"([{"name":"a","port":2}])");
        again.signal(SIGHUP);
        again.awaitOutput("\"reloaded\"");
        folder.write("set.json", "");
        again.signal(SIGHUP);
        again.awaitOutput("\"not-reloaded\"");
        take(again.stopped(0).output);
    }
    {
        Announce& unread = run({"--registry", urlOf(registry.port()), "--name",
                                std::string(6'000, 'x'), "--uri", "/lamp", "--port", "1"});
        unread.awaitOutput("\"announced\"");
        for (int i = 0; i < 100; ++i) {  // more than the pipe and the queue take
            unread.signal(SIGUSR1);
            EXPECT_TRUE(eventually([&] { return !hasPendingSignal(unread.pid()); }));
        }
        unread.awaitOutput("\"lines-dropped\"");
        take(unread.stopped(0).output);
    }
    answerInFront("PUT", testing::response(403));
    take(run(echo(front.port())).ended(1).output);

    EXPECT_EQ(faultsOf(lines_), "");
    std::set<std::string> seen;
    for (const json& line : linesOf(lines_)) {
        seen.insert(line.at("event").get<std::string>());
    }
    std::set<std::string> known;
    std::set<std::string> keys;
    collect(json::parse(contentOf(kSchema)), known, keys);
    EXPECT_EQ(seen, known);
}

TEST_F(TheContract, IsKeptByTheStatusFile) {
    const auto file = folder.file("status.json");
    const auto expectState = [&](const std::string& state) {
        json status;
        EXPECT_TRUE(eventually([&] {
            status = json::parse(contentOf(file), nullptr, false);
            return status.is_object() && status.at("services").at(0).at("state") == state;
        })) << state;
        EXPECT_EQ(faultsOf(status.dump() + "\n"), "");
    };
    passOnInFront();
    Announce announce(echo(front.port()) + Words{"--status-file", file, "--check-interval", "1"} +
                      command({"0"}));
    expectState("announced");
    answerInFront("HEAD", testing::response(503));
    expectState("unreachable");
    announce.awaitOutput("up\n");
    announce.stopped(0);
    expectState("withdrawn");
}

TEST_F(TheContract, RefusesWhatItDoesNotName) {
    const std::string line = R"({"time":"2026-01-31T12:00:00Z","event":"ready")";
    EXPECT_EQ(faultsOf(line + "}\n"), "");
    EXPECT_THAT(faultsOf(line + R"(,"more":1})"
                                "\n"),
                Not(IsEmpty()));
}

TEST_F(TheContract, IsInTheManualPage) {
    std::set<std::string> events;
    std::set<std::string> keys;
    collect(json::parse(contentOf(kSchema)), events, keys);
    EXPECT_FALSE(events.empty());
    const std::string page = contentOf(std::string(paths::kAnnounceSources) + "/orvx-announce.1");
    for (const std::string& event : events) {
        EXPECT_THAT(page, HasSubstr("\n.It Cm " + event + "\n"));
    }
    for (const std::string& key : keys) {
        EXPECT_THAT(page, HasSubstr("Cm " + key)) << key;
    }
    const auto begin = page.find("\n.Sh EVENTS\n");
    std::istringstream section(page.substr(begin, page.find("\n.Sh ", begin + 1) - begin));
    std::set<std::string> described;
    const std::string item = ".It Cm ";
    for (std::string line; std::getline(section, line);) {
        if (line.rfind(item, 0) == 0) {
            described.insert(line.substr(item.size()));
        }
    }
    EXPECT_EQ(described, events);
}

}  // namespace
}  // namespace orvx::announce
