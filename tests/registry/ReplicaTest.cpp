// Tests registries that share the entries of a real etcd. Each runs on a thread of its own; the
// tests send requests over sockets. A test polls for a state that comes without a notification.

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <chrono>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "EtcdProcess.h"
#include "Replica.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kNobody = "/00000000-0000-4000-8000-000000000000";

class TheReplicas : public ::testing::Test {
  protected:
    EtcdProcess etcd_;
};

TEST_F(TheReplicas, MakeOneEntryOfAPathThatIsPutAtAllOfThemAtOnce) {
    Replica a({etcd_.url()});
    Replica b({etcd_.url()});
    a.awaitReady();
    b.awaitReady();
    for (int round = 0; round < 20; ++round) {
        const std::string path = "/" + std::to_string(round);
        std::vector<std::string> found(6);
        std::vector<std::thread> callers;
        for (std::size_t i = 0; i < found.size(); ++i) {
            callers.emplace_back([&, i] { found[i] = (i % 2 == 0 ? a : b).put(path); });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
        EXPECT_EQ(std::set<std::string>(found.begin(), found.end()).size(), 1U);
    }
    EXPECT_EQ(a.paths().size(), 20U);
}

TEST_F(TheReplicas, AnswerToAPutWhenTheEntryIsListed) {
    Replica a({etcd_.url()});
    a.awaitReady();
    for (int i = 0; i < 50; ++i) {
        a.put("/" + std::to_string(i));
        EXPECT_EQ(a.paths().size(), static_cast<std::size_t>(i + 1));
    }
}

TEST_F(TheReplicas, FindAnEntryThatAnotherReplicaHasJustCreated) {
    Replica a({etcd_.url()});
    Replica b({etcd_.url()});
    a.awaitReady();
    b.awaitReady();
    for (int i = 0; i < 50; ++i) {
        const std::string target = a.put("/" + std::to_string(i), R"({"a":1})");
        EXPECT_EQ(b.statusOf("HEAD", target), 200U);
        EXPECT_EQ(json::parse(b.ask("GET", target).body()).at("service").dump(), R"({"a":1})");
        EXPECT_EQ(b.ask("DELETE", target).result(), http::status::ok);
        EXPECT_EQ(b.statusOf("HEAD", target), 404U);
        EXPECT_EQ(b.statusOf("DELETE", target), 404U);
    }
    await([&] { return a.paths().empty(); });
}

TEST_F(TheReplicas, KeepTheUuidOfAPathThroughAllReplacementsAndGiveANewOneAfterARemoval) {
    Replica a({etcd_.url()});
    Replica b({etcd_.url()});
    const std::string first = a.awaitReady().put("/lamp", R"({"host":"a","port":1})");
    const auto replaced = b.awaitReady().ask("PUT", "/lamp", R"({"host":"b","port":2})");
    EXPECT_EQ(replaced.result(), http::status::ok);
    EXPECT_EQ(replaced[http::field::location], first);
    await([&] { return a.ask("GET", first).body().find(R"("host":"b")") != std::string::npos; });
    EXPECT_EQ(a.ask("DELETE", first).result(), http::status::ok);
    const auto again = b.ask("PUT", "/lamp", "{}");  // its copy may still have the first entry
    EXPECT_EQ(again.result(), http::status::created);
    EXPECT_NE(again[http::field::location], first);
}

TEST_F(TheReplicas, AnswerThatTheyAreUnavailableForAnUnknownEntryWhileEtcdIsSilent) {
    Replica a({etcd_.url()});
    const std::string known = a.awaitReady().put("/lamp");
    etcd_.pause();
    RawConnection connection = a.registry().connect();
    connection.send(makeRequest("HEAD", kNobody));
    const auto answer = connection.receive(true);
    EXPECT_EQ(answer.result(), http::status::service_unavailable);
    EXPECT_EQ(answer[http::field::retry_after], "1");
    EXPECT_EQ(a.ask("PUT", "/other", "{}").result(), http::status::service_unavailable);
    EXPECT_EQ(a.ask("DELETE", known).result(), http::status::service_unavailable);
    EXPECT_EQ(a.statusOf("HEAD", known), 200U);
    EXPECT_EQ(a.statusOf("HEAD", "/no-uuid"), 404U);
    await([&] { return !a.isReady(); });
    EXPECT_EQ(a.statusOf("GET", "/-/health"), 200U);
    etcd_.resume();
    a.awaitReady();
    EXPECT_EQ(a.statusOf("HEAD", kNobody), 404U);
}

TEST_F(TheReplicas, AskEtcdOnceForSeveralRequestsOfAnUnknownEntry) {
    Replica a({etcd_.url()});
    a.awaitReady();
    etcd_.pause();
    std::vector<RawConnection> callers;
    for (int i = 0; i < 20; ++i) {
        callers.push_back(a.registry().connect());
        callers.back().send(makeRequest("HEAD", kNobody));
    }
    a.statusOf("GET", "/-/health");  // the earlier requests have arrived
    etcd_.resume();
    for (RawConnection& caller : callers) {
        EXPECT_EQ(caller.receive(true).result_int(), 404U);
    }
    EXPECT_THAT(a.metrics(), HasSubstr("orvx_registry_etcd_lookups_total 1\n"));
}

TEST_F(TheReplicas, AreNotReadyBeforeTheyKnowTheEntries) {
    std::string known;
    {
        Replica a({etcd_.url()});
        known = a.awaitReady().put("/lamp");
    }
    etcd_.stop();
    Replica b({etcd_.url()});
    EXPECT_EQ(b.statusOf("GET", "/-/ready"), 503U);
    EXPECT_EQ(b.statusOf("GET", "/"), 503U);
    EXPECT_EQ(b.statusOf("HEAD", "/"), 503U);
    EXPECT_EQ(b.statusOf("GET", "/-/watch"), 503U);
    EXPECT_EQ(b.statusOf("GET", "/-/prometheus"), 503U);
    EXPECT_EQ(b.statusOf("HEAD", known), 503U);
    EXPECT_EQ(b.statusOf("GET", "/-/health"), 200U);
    etcd_.start();
    EXPECT_EQ(b.awaitReady().statusOf("HEAD", known), 200U);
    EXPECT_EQ(b.paths(), std::vector<std::string>{"/lamp"});
}

TEST_F(TheReplicas, NotifyReadinessWhenTheyKnowTheEntries) {
    etcd_.stop();
    RegistryOptions options;
    options.etcd = {etcd_.url()};
    std::promise<bool> ready;
    auto isReady = ready.get_future();
    const RunningRegistry registry(options,
                                   [&ready](bool isCurrent) { ready.set_value(isCurrent); });
    RawConnection connection = registry.connect();
    EXPECT_EQ(connection.ask(makeRequest("GET", "/-/ready")).result_int(), 503U);
    EXPECT_EQ(isReady.wait_for(0s), std::future_status::timeout);
    etcd_.start();
    EXPECT_TRUE(isReady.get());
    EXPECT_EQ(connection.ask(makeRequest("GET", "/-/ready")).result_int(), 200U);
}

TEST_F(TheReplicas, NotifyReadinessInTimeAlthoughEtcdDoesNotAnswer) {
    etcd_.stop();
    RegistryOptions options;
    options.etcd = {etcd_.url()};
    options.readyTimeout = 100ms;
    std::promise<bool> ready;
    const RunningRegistry registry(options,
                                   [&ready](bool isCurrent) { ready.set_value(isCurrent); });
    EXPECT_FALSE(ready.get_future().get());
}

TEST_F(TheReplicas, AcceptAPutAsSoonAsTheyKnowTheEntries) {
    Replica a({etcd_.url()});
    EXPECT_EQ(a.ask("PUT", "/lamp", "{}").result(), http::status::created);
}

TEST_F(TheReplicas, ListInTheSameOrderAndContinueTheirPages) {
    Replica a({etcd_.url()});
    Replica b({etcd_.url()});
    a.awaitReady();
    b.awaitReady();
    for (int i = 0; i < 100; ++i) {
        (i % 2 == 0 ? a : b).put("/" + std::to_string(i));
    }
    await([&] { return a.paths().size() == 100 && b.paths().size() == 100; });
    EXPECT_EQ(a.paths(), b.paths());
    Replica c({etcd_.url()});  // reads more than one page from etcd
    EXPECT_EQ(c.awaitReady().paths(), a.paths());
    const json page = json::parse(a.ask("GET", "/?limit=60").body());
    const auto rest = c.paths("?after=" + page.at("next").get<std::string>());
    EXPECT_EQ(rest.size(), 40U);
    EXPECT_EQ(rest.front(), a.paths().at(60));
}

TEST_F(TheReplicas, SendChangesAtOtherReplicasToTheirWatchers) {
    Replica a({etcd_.url()});
    Replica b({etcd_.url()});
    a.awaitReady();
    b.awaitReady();
    RawConnection watcher = a.registry().connect();
    watcher.send(makeRequest("GET", "/-/watch"));
    watcher.readUntil("event: listed");
    const std::string target = b.put("/lamp");
    EXPECT_THAT(watcher.readUntil("event: put"), Not(HasSubstr("event: removed")));
    b.ask("DELETE", target);
    watcher.readUntil("event: removed");
}

TEST_F(TheReplicas, KeepEntriesOfAnyPathAndAnyServiceThatEtcdAccepts) {
    Replica a({etcd_.url()});
    Replica b({etcd_.url()});
    a.awaitReady();
    b.awaitReady();
    const std::string big = R"({"x":")" + std::string(1'000'000, 'y') + R"("})";
    for (const auto& [path, body] : std::vector<std::pair<std::string, std::string>>{
             {"/big", big}, {"/\xff%2f?q=\"\\ä", R"({"host":"ä\"\n","port":1})"}, {"*", "{}"}}) {
        const std::string target = a.put(path, body);
        await([&] { return b.ask("GET", target).body() == a.ask("GET", target).body(); });
        EXPECT_EQ(json::parse(b.ask("GET", target).body()).at("service"), json::parse(body));
    }
    Replica c({etcd_.url()});
    EXPECT_EQ(c.awaitReady().paths().size(), 3U);
}

class TheReplicasWithATimeToLive : public TheReplicas {
  protected:
    static constexpr auto kTtl = 4'000ms;
};

TEST_F(TheReplicasWithATimeToLive, KeepEntriesThatAreCheckedAtAnyReplicaAndLetOthersExpire) {
    Replica a({etcd_.url()}, kTtl);
    Replica b({etcd_.url()}, kTtl);
    a.awaitReady();
    b.awaitReady();
    const auto begin = Clock::now();
    const std::string live = a.put("/live");
    a.put("/dead");
    std::optional<Clock::time_point> gone;
    while (!gone || Clock::now() < *gone + 1s) {
        ASSERT_LT(Clock::now(), begin + 5 * kTtl);
        EXPECT_EQ(b.statusOf("HEAD", live), 200U);
        if (!gone && !a.has("/dead")) {
            gone = Clock::now();
        }
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_TRUE(a.has("/live"));
    EXPECT_GE(*gone - begin, kTtl);  // tests/replicas checks the upper limit
    const auto counts = [](const Replica& replica) {
        return replica.metrics().find("orvx_registry_expirations_total 1\n") != std::string::npos;
    };
    EXPECT_NE(counts(a), counts(b));
}

TEST_F(TheReplicasWithATimeToLive, LetNothingExpireForTheTimeWithoutEtcd) {
    Replica a({etcd_.url()}, kTtl);
    const std::string target = a.awaitReady().put("/lamp");
    etcd_.stop();
    const auto begin = Clock::now();
    std::this_thread::sleep_until(begin + kTtl * 3 / 2);
    etcd_.start();
    a.awaitReady();
    EXPECT_EQ(a.statusOf("HEAD", target), 200U);
    const auto back = Clock::now();
    std::this_thread::sleep_until(back + kTtl / 2);
    EXPECT_EQ(a.statusOf("HEAD", target), 200U);
    await([&] { return !a.has("/lamp"); });
    EXPECT_GE(Clock::now() - back, kTtl);
}

TEST_F(TheReplicasWithATimeToLive, WriteTheirLastChecksBeforeTheyEnd) {
    Replica b({etcd_.url()}, kTtl);
    auto a = std::make_unique<Replica>(std::vector{etcd_.url()}, kTtl);
    a->awaitReady();
    const std::string target = b.awaitReady().put("/lamp");
    RawConnection watcher = b.registry().connect();
    watcher.send(makeRequest("GET", "/-/watch"));
    watcher.readUntil("event: listed");
    EXPECT_EQ(a->statusOf("HEAD", target), 200U);
    a.reset();
    EXPECT_THAT(watcher.readUntil("event: checked"), Not(HasSubstr("event: removed")));
}

TEST(TheReplicasOfACluster, ContinueWithTheRemainingMembers) {
    EtcdCluster etcd;
    Replica a(etcd.urls());
    const std::string target = a.awaitReady().put("/lamp");
    for (std::size_t i = 0; i < 3; ++i) {
        etcd[i].stop();
        await([&] { return a.ask("PUT", "/lamp", "{}").result() == http::status::ok; });
        a.awaitReady();
        EXPECT_EQ(a.statusOf("HEAD", target), 200U);
        etcd[i].start();
    }
}

}  // namespace
}  // namespace orvx::registry
