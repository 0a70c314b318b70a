// Tests a registry in front of a fake etcd, in situations that a real etcd shows rarely or never on
// demand. The registry and etcd have threads of their own. The tests send requests over sockets,
// and wait for expected requests to etcd.

#include "EtcdBackend.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/http/status.hpp>
#include <chrono>
#include <csignal>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Base64.h"
#include "EtcdEntries.h"
#include "FakeEtcd.h"
#include "RegistryProcess.h"
#include "Replica.h"
#include "RunningEtcdClient.h"

namespace orvx::registry {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Step = std::function<FakeEtcd::Answer()>;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

const std::string kPrefix = "/orvx-registry/";
const std::string kUuidBegin = "00000000-0000-4000-8000-";
constexpr auto kShortTtl = 2'400ms;  // a write every 100 ms, three writes in a round
constexpr auto kLongTtl = 40'000ms;  // a write every second, five writes in a round

std::string uuidOf(int number) {
    const std::string digits = std::to_string(number);
    return kUuidBegin + std::string(12 - digits.size(), '0') + digits;
}

std::string targetOf(int number) {
    return "/" + uuidOf(number);
}

/// Carries out every request, but returns `instead` for the first one, as if its answer were lost.
FakeEtcd::Script losingTheFirstAnswer(const FakeEtcd::Answer& instead) {
    return [instead, isFirst = std::make_shared<std::atomic<bool>>(true)](const json&,
                                                                          const Step& carryOut) {
        FakeEtcd::Answer answer = carryOut();
        return isFirst->exchange(false) ? instead : answer;
    };
}

/// Reads the stream of changes of a replica as texts: "put 1" for the entry number 1, "removed 1",
/// "checked 1".
class Watcher {
  public:
    explicit Watcher(const Replica& replica) : connection_(replica.connect()) {
        connection_.send(makeRequest("GET", "/-/watch"));
        connection_.readUntil("event: listed");
    }

    /// Returns all changes up to `last`.
    std::vector<std::string> until(const std::string& last) {
        std::vector<std::string> changes;
        const auto deadline = Clock::now() + 30s;  // heartbeats keep the stream alive
        while (changes.empty() || changes.back() != last) {
            if (Clock::now() > deadline) {
                throw std::runtime_error("the change \"" + last + "\" did not come");
            }
            const std::string event = connection_.readUntil("\n\n");
            const auto uuid = event.find(kUuidBegin);
            if (uuid != std::string::npos) {
                const std::string name = event.substr(event.find("event: ") + 7);
                changes.push_back(
                    name.substr(0, name.find('\n')) + ' ' +
                    std::to_string(std::stoi(event.substr(uuid + kUuidBegin.size(), 12))));
            }
        }
        return changes;
    }

  private:
    RawConnection connection_;
};

class AReplica : public ::testing::Test {
  protected:
    /// Puts the entry of that number at the path "/<number>", as another replica.
    void put(int number, const std::string& service = "{}") {
        Entry& entry = theirs_[number];
        entry.uuid = uuidOf(number);
        entry.path = '/' + std::to_string(number);
        entry.service = service;
        entry.address = addressOf(json::parse(service));
        const json answer = etcd_.ask("kv/txn", entries_.put(entry, entry.etcdRevision));
        entry.etcdRevision = EtcdEntries::revisionOf(answer);
    }
    void remove(int number) {
        const json lease = etcd_.ask("lease/grant", EtcdEntries::grantLease());
        etcd_.ask("kv/txn", entries_.remove({theirs_.at(number)}, EtcdEntries::leaseIn(lease), 0));
        theirs_.erase(number);
    }
    std::size_t count(const std::string& call) const { return etcd_.requests(call).size(); }
    /// The number of the replica's writes that contain checks of that entry.
    std::size_t checkWrites(int number) const {
        std::size_t times = 0;
        for (const json& write : etcd_.requests("kv/put")) {
            times += namesIn(write).count(uuidOf(number));
        }
        return times;
    }
    /// Checks that entry at the replica, and waits until the write that names the entry is under
    /// way. Writes that name it are held until the future is ready.
    void checkAndHoldTheWrite(const Replica& replica, int number, std::future<void> released) {
        etcd_.setScript("kv/put", [number, isReleased = released.share()](const json& write,
                                                                          const Step& carryOut) {
            if (namesIn(write).count(uuidOf(number)) != 0) {
                isReleased.wait();
            }
            return carryOut();
        });
        EXPECT_EQ(replica.statusOf("HEAD", targetOf(number)), 200U);
        await([&] { return checkWrites(number) == 1; });
    }
    static std::set<std::string> namesIn(const json& write) {
        return json::parse(decode64(write.at("value").get<std::string>()).value()).at("uuids");
    }
    std::vector<std::string> members(std::size_t count) const {
        return std::vector<std::string>(count, etcd_.url());
    }

    static FakeEtcd::Backup ofCluster(const std::string& cluster) {
        FakeEtcd::Backup empty;
        empty.cluster = cluster;
        return empty;
    }
    static void setAvailable(FakeEtcd& etcd, bool isAvailable) {
        for (const char* const call : {"kv/range", "kv/put", "kv/txn", "lease/grant", "watch"}) {
            etcd.setScript(
                call, isAvailable ? FakeEtcd::Script() : [](const json&, const Step&) {
                    return FakeEtcd::unavailable();
                });
        }
        etcd.endWatches();
    }

    FakeEtcd etcd_;
    const EtcdEntries entries_{kPrefix};
    std::map<int, Entry> theirs_;
};

// ---- The copy

TEST_F(AReplica, ListsAgainAfterACompactionAndReportsOnlyTheChanges) {
    put(1);
    put(2);
    put(3);
    Replica replica(members(1));
    Watcher watcher(replica.awaitReady());
    etcd_.silenceWatches();
    remove(1);
    put(2, R"({"a":2})");
    put(4);
    etcd_.endSilence();
    etcd_.cancelWatches();
    EXPECT_THAT(watcher.until("put 4"), ElementsAre("removed 1", "put 2", "put 4"));
    put(5);
    EXPECT_THAT(watcher.until("put 5"), ElementsAre("put 5"));
    EXPECT_THAT(replica.ask("GET", targetOf(2)).body(), HasSubstr(R"({"a":2})"));
    EXPECT_THAT(replica.paths(), ElementsAre("/2", "/3", "/4", "/5"));
}

TEST_F(AReplica, RestartsASilentWatchAndIsNotReadyMeanwhile) {
    Replica replica(members(1));
    replica.awaitReady();
    etcd_.silenceWatches();
    await([&] { return !replica.isReady(); });
    etcd_.awaitRequests("watch", 2);
    put(1);
    etcd_.endSilence();
    EXPECT_TRUE(replica.awaitReady().has("/1"));
    EXPECT_EQ(count("kv/range"), 1U);
}

TEST_F(AReplica, ListsAgainOnlyAfterSeveralWatchesWithoutAnEvent) {
    Replica replica(members(1));
    replica.awaitReady();
    etcd_.silenceWatches();
    etcd_.endWatches();
    etcd_.awaitRequests("watch", 2);
    EXPECT_EQ(count("kv/range"), 1U);
    await([&] {
        etcd_.endWatches();
        return count("kv/range") == 2;
    });
    etcd_.endSilence();
    etcd_.endWatches();
    put(1);
    await([&] { return replica.has("/1"); });
}

TEST_F(AReplica, ContinuesItsWatchHoweverOftenItEndsIfEachHasBroughtSomething) {
    Replica replica(members(1));
    replica.awaitReady();
    for (int number = 1; number <= 6; ++number) {
        put(number);
        await([&] { return replica.has('/' + std::to_string(number)); });
        const std::size_t watches = count("watch");
        etcd_.endWatches();
        etcd_.awaitRequests("watch", watches + 1);
    }
    EXPECT_EQ(count("kv/range"), 1U);
}

TEST_F(AReplica, TakesNoListOfSomethingElseThanEtcd) {
    put(1);
    etcd_.setScript("kv/range",
                    [](const json&, const Step&) { return FakeEtcd::Answer{json::object()}; });
    Replica replica(members(1));
    await([&] { return count("kv/range") > 1 || replica.statusOf("GET", "/") == 200; });
    EXPECT_EQ(replica.statusOf("GET", "/"), 503U);
    etcd_.setScript("kv/range", {});
    EXPECT_THAT(replica.awaitReady().paths(), ElementsAre("/1"));
}

// Before, the line ended after "etcd: ".
TEST_F(AReplica, SaysThatSomethingElseThanEtcdAnswers) {
    etcd_.setScript("kv/range",
                    [](const json&, const Step&) { return FakeEtcd::Answer{json::object()}; });
    RegistryProcess program({"--port", "0", "--etcd", etcd_.url()});
    EXPECT_EQ(program.awaitErrors("\n"), "orvx-registry: etcd: no answer of etcd\n");
}

TEST_F(AReplica, ListsAgainWhenEtcdWasRestoredFromABackup) {
    put(1, R"({"a":1})");
    Replica replica(members(1));
    replica.awaitReady();
    const auto backup = etcd_.backup();
    for (int i = 0; i < 200; ++i) {
        etcd_.put("/other", "x");
    }
    put(1, R"({"a":2})");
    put(2);
    await([&] { return replica.has("/2"); });
    etcd_.restore(backup);
    await([&] { return !replica.has("/2"); });
    EXPECT_THAT(replica.ask("GET", targetOf(1)).body(), HasSubstr(R"({"a":1})"));
    put(3);
    await([&] { return replica.has("/3"); });
    etcd_.awaitRequests("kv/put", count("kv/put") + 2);
    EXPECT_EQ(count("kv/range"), 2U);
    replica.awaitReady();
}

// The restored etcd has a higher revision than the replica knows, but belongs to another cluster.
TEST_F(AReplica, ListsAgainWhenEtcdWasRestoredAsAnotherCluster) {
    put(1);
    Replica replica(members(1));
    replica.awaitReady();
    auto backup = etcd_.backup();
    put(2);
    await([&] { return replica.has("/2"); });
    backup.cluster = "2";
    etcd_.restore(backup);
    for (int i = 0; i < 200; ++i) {
        etcd_.put("/other", "x");
    }
    await([&] { return !replica.has("/2"); });
    EXPECT_THAT(replica.awaitReady().paths(), ElementsAre("/1"));
}

TEST_F(AReplica, ListsAgainAlthoughACanceledWatchEnds) {
    Replica replica(members(1), kShortTtl);
    replica.awaitReady();
    etcd_.cancelWatches();
    etcd_.awaitRequests("kv/put", count("kv/put") + 1);
    etcd_.endWatches();
    etcd_.awaitRequests("kv/range", 2);
    put(1);
    await([&] { return replica.has("/1"); });
}

TEST_F(AReplica, ReadsOneListAtATime) {
    for (int number = 1; number <= 50; ++number) {
        put(number);
    }
    Replica replica(members(1), kShortTtl);
    replica.awaitReady();
    const auto backup = etcd_.backup();
    for (int i = 0; i < 200; ++i) {
        etcd_.put("/other", "x");
    }
    put(51);
    await([&] { return replica.has("/51"); });
    const std::size_t writes = count("kv/put");
    etcd_.setScript("kv/range", [this, writes](const json& page, const Step& carryOut) {
        if (page.at("revision") != "0") {  // the second page waits for further writes
            etcd_.awaitRequests("kv/put", writes + 8);
        }
        return carryOut();
    });
    etcd_.restore(backup);
    Watcher watcher(replica);
    watcher.until("removed 51");
    put(52);
    EXPECT_THAT(watcher.until("put 52"), ElementsAre("put 52"));
    EXPECT_THAT(replica.paths(), SizeIs(51));
    const auto pages = etcd_.requests("kv/range");
    EXPECT_LE(std::count_if(pages.begin(), pages.end(),
                            [](const json& page) { return page.at("revision") == "0"; }),
              3)
        << "the first list, the one after the restoration, and one for a write that began before "
           "it";
}

TEST_F(AReplica, ListsInPagesOfOneRevisionAndInTheOrderOfCreation) {
    for (int number = 90; number > 0; --number) {
        put(number);
    }
    Replica replica(members(1));
    const auto paths = replica.awaitReady().paths();
    ASSERT_EQ(paths.size(), 90U);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        EXPECT_EQ(paths[i], '/' + std::to_string(90 - i));
    }
    const auto pages = etcd_.requests("kv/range");
    ASSERT_GT(pages.size(), 1U);
    EXPECT_EQ(pages[0].at("revision"), "0");
    for (std::size_t i = 1; i < pages.size(); ++i) {
        EXPECT_EQ(pages[i].at("revision"), "91");
    }
    EXPECT_EQ(etcd_.requests("watch").at(0).at("create_request").at("start_revision"), "92");
}

TEST_F(AReplica, RepeatsAFailedPageWithASmallerLimitAndListsAgainAfterARefusal) {
    for (int number = 1; number <= 90; ++number) {
        put(number);
    }
    etcd_.setScript("kv/range", [times = std::make_shared<std::atomic<int>>(0)](
                                    const json&, const Step& carryOut) {
        switch (++*times) {
            case 2:
                return FakeEtcd::unavailable();
            case 3:
                return FakeEtcd::Answer{{{"code", 11}, {"message", "compacted"}}, 400};
            default:
                return carryOut();
        }
    });
    Replica replica(members(1));
    EXPECT_THAT(replica.awaitReady().paths(), SizeIs(90));
    const auto pages = etcd_.requests("kv/range");
    EXPECT_EQ(pages.at(2).at("key"), pages.at(1).at("key"));
    const auto limit = [&pages](std::size_t number) {
        return std::stoi(pages.at(number).at("limit").get<std::string>());
    };
    EXPECT_LT(limit(2), limit(1));
    EXPECT_GT(limit(4), limit(3)) << "the limit grows again";
    EXPECT_EQ(pages.at(3).at("key"), pages.at(0).at("key"));
    EXPECT_EQ(pages.at(3).at("revision"), "0");
}

TEST_F(AReplica, IgnoresWhatOthersWriteBelowThePrefix) {
    const auto writeForeignKeys = [this] {
        etcd_.put(kPrefix + "entries/x", "x");
        etcd_.put(kPrefix + "entries/" + uuidOf(7), "{\"path\":\"L2E=\"}");
        etcd_.put(kPrefix + "entries/" + uuidOf(8) + "/x", "{\"path\":\"L2E=\"}\n{}");
        etcd_.put(kPrefix + "checks", "x");
        etcd_.put(kPrefix + "checks", R"({"from":"x","uuids":[1,"x"]})");
        etcd_.put(kPrefix + "checksum", "x");
        etcd_.put(kPrefix + "paths/x", "x");
        etcd_.ask("kv/txn",
                  {{"compare", json::array()},
                   {"success",
                    {{{"request_delete_range", {{"key", encode64(kPrefix + "entries/x")}}}}}}});
    };
    writeForeignKeys();
    put(1);
    Replica replica(members(1), kLongTtl);
    EXPECT_THAT(replica.awaitReady().paths(), ElementsAre("/1"));
    writeForeignKeys();
    put(2);
    await([&] { return replica.has("/2"); });
    EXPECT_THAT(replica.paths(), ElementsAre("/1", "/2"));
    EXPECT_EQ(replica.ask("PUT", "/x", "{}").result(), http::status::created);
}

// Before, the copy kept the overwritten entry, whose removal failed together with that of all other
// expired entries, again and again.
TEST_F(AReplica, DropsAnEntryThatOthersOverwriteSoThatTheOtherEntriesExpire) {
    put(1);
    put(2);
    Replica replica(members(1), kShortTtl);
    Watcher watcher(replica.awaitReady());
    etcd_.put(kPrefix + "entries/" + uuidOf(1), "x");
    EXPECT_THAT(watcher.until("removed 2"), ElementsAre("removed 1", "removed 2"));
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 404U);
    EXPECT_EQ(replica.put("/1"), targetOf(1));
}

TEST_F(AReplica, DoesNotAcceptAnotherEntryThanTheOneItAskedFor) {
    put(1);
    Replica replica(members(1));
    replica.awaitReady();
    etcd_.setScript("kv/range", [this](const json&, const Step&) {
        return FakeEtcd::Answer{etcd_.ask("kv/range", entries_.find(uuidOf(1)))};
    });
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(2)), 503U);
}

// ---- Another cluster

TEST_F(AReplica, IgnoresAnswersOfAMemberOfAnotherCluster) {
    FakeEtcd otherCluster;
    otherCluster.restore(ofCluster("2"));
    put(1);
    Replica replica({etcd_.url(), otherCluster.url()}, kLongTtl);
    Watcher watcher(replica.awaitReady());
    setAvailable(etcd_, false);
    otherCluster.awaitRequests("watch", 1);
    otherCluster.awaitRequests("kv/put", 2);
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(2)), 503U);
    EXPECT_EQ(replica.ask("PUT", "/3", "{}").result(), http::status::service_unavailable);
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(1)), 503U);
    await([&] { return !replica.isReady(); });
    setAvailable(etcd_, true);
    put(4);
    EXPECT_THAT(watcher.until("put 4"), Not(Contains("removed 1")));
    EXPECT_THAT(replica.awaitReady().paths(), ElementsAre("/1", "/4"));
}

TEST_F(AReplica, ReportsAMemberOfAnotherClusterOnce) {
    FakeEtcd otherCluster;
    otherCluster.restore(ofCluster("2"));
    RegistryProcess program({"--port", "0", "--etcd", etcd_.url() + ',' + otherCluster.url()});
    for (std::size_t i = 1; i <= 2; ++i) {  // each watch is sent to the next member
        etcd_.awaitRequests("watch", i);
        await([&] {
            etcd_.endWatches();
            return otherCluster.requests("watch").size() >= i;
        });
    }
    const std::string line = "orvx-registry: etcd: " + otherCluster.url() +
                             " is a member of another cluster, its answers are not taken\n";
    program.awaitErrors(line);
    program.signal(SIGTERM);
    const std::string errors = program.wait().errors;
    EXPECT_EQ(errors.find(line), errors.rfind(line)) << errors;
}

TEST_F(AReplica, TakesOverTheEntriesOfAnotherClusterOnceEveryMemberIsOfIt) {
    FakeEtcd second;
    setAvailable(second, false);
    put(1);
    Replica replica({etcd_.url(), second.url()});
    replica.awaitReady();
    etcd_.restore(ofCluster("2"));
    await([&] { return !replica.isReady(); });
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(2)), 503U);
    second.restore(ofCluster("2"));
    setAvailable(second, true);
    await([&] { return !replica.has("/1"); });
}

TEST_F(AReplica, ContinuesWithEtcdAfterARestoreAsAnotherCluster) {
    put(1);
    auto backup = etcd_.backup();
    Replica replica(members(1));
    put(2);
    await([&] { return replica.has("/2"); });
    const std::string target = replica.awaitReady().put("/lamp");
    EXPECT_EQ(replica.statusOf("DELETE", target), 200U);
    backup.cluster = "2";
    etcd_.restore(backup);
    await([&] { return !replica.has("/2"); });
    put(3);
    await([&] { return replica.has("/3"); });
    EXPECT_THAT(replica.awaitReady().paths(), ElementsAre("/1", "/3"));
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(1)), 200U);
}

// ---- Changes

TEST_F(AReplica, PutsNothingBeforeItKnowsTheEntries) {
    etcd_.setScript("kv/range", [](const json&, const Step&) { return FakeEtcd::unavailable(); });
    const Replica replica(members(1));
    const auto answer = replica.ask("PUT", "/lamp", "{}");
    EXPECT_EQ(answer.result(), http::status::service_unavailable);
    EXPECT_EQ(answer[http::field::retry_after], "1");
    EXPECT_EQ(count("kv/txn"), 0U);
}

TEST_F(AReplica, KeepsALimitForAPutThatCameBeforeItKnewTheEntries) {
    put(1);
    std::promise<void> mayAnswer;
    etcd_.setScript("kv/range",
                    [released = mayAnswer.get_future().share()](const json&, const Step& carryOut) {
                        released.wait();
                        return carryOut();
                    });
    RegistryProcess program({"--port", "0", "--etcd", etcd_.url(), "--max-entries", "1"});
    RawConnection early(program.port());
    early.send(makeRequest("PUT", "/lamp", "{}"));
    RawConnection later(program.port());
    for (int i = 0; i < 3; ++i) {  // then the request before has been read
        EXPECT_EQ(later.ask(makeRequest("GET", "/-/health")).result(), http::status::ok);
    }
    mayAnswer.set_value();
    EXPECT_EQ(early.receive().result(), http::status::service_unavailable);
    EXPECT_EQ(early.ask(makeRequest("PUT", "/lamp", "{}")).result(),
              http::status::insufficient_storage);
}

TEST_F(AReplica, RefusesAServiceThatIsTooLongForEtcdAsItIsWritten) {
    Replica replica(members(1));
    replica.awaitReady();
    std::string numbers = "1e9";  // is written as 1000000000.0
    for (int i = 0; i < 200'000; ++i) {
        numbers += ",1e9";
    }
    const auto answer = replica.ask("PUT", "/lamp", R"({"a":[)" + numbers + "]}");
    EXPECT_EQ(answer.result(), http::status::bad_request);
    EXPECT_THAT(answer.body(), HasSubstr("longer than 1 MiB"));
    EXPECT_EQ(count("kv/txn"), 0U);
}

TEST_F(AReplica, AnswersThatItIsUnavailableWhenEtcdDoesNotAnswerAPut) {
    Replica replica(members(1));
    replica.awaitReady();
    etcd_.setScript("kv/txn", [](const json&, const Step&) { return FakeEtcd::unavailable(); });
    const auto answer = replica.ask("PUT", "/lamp", "{}");
    EXPECT_EQ(answer.result(), http::status::service_unavailable);
    EXPECT_EQ(answer[http::field::retry_after], "1");
    EXPECT_THAT(replica.paths(), IsEmpty());
}

TEST_F(AReplica, CreatesOneEntryWhenTheFirstAttemptOfAPutGetsNoAnswer) {
    Replica replica(members(2));
    replica.awaitReady();
    for (const FakeEtcd::Answer& instead : {FakeEtcd::unavailable(), FakeEtcd::Answer{{}, 0}}) {
        const std::string path = "/" + std::to_string(instead.status);
        etcd_.setScript("kv/txn", losingTheFirstAnswer(instead));
        const auto created = replica.ask("PUT", path, R"({"a":1})");
        EXPECT_EQ(created.result(), http::status::created);
        const std::string target(created[http::field::location]);
        EXPECT_EQ(replica.statusOf("HEAD", target), 200U);
        etcd_.setScript("kv/txn", losingTheFirstAnswer(instead));
        const auto replaced = replica.ask("PUT", path, R"({"a":2})");
        EXPECT_EQ(replaced.result(), http::status::ok);
        EXPECT_EQ(replaced[http::field::location], target);
        EXPECT_THAT(replica.ask("GET", target).body(), HasSubstr(R"({"a":2})"));
    }
    EXPECT_THAT(replica.paths(), SizeIs(2));
    EXPECT_THAT(entries_.entriesIn(etcd_.ask("kv/range", entries_.list({}, 10, 0))), SizeIs(2));
}

TEST_F(AReplica, ReportsARemovalWhoseFirstAttemptGotNoAnswer) {
    put(1);
    put(2);
    Replica replica(members(2));
    replica.awaitReady();
    int number = 0;
    for (const FakeEtcd::Answer& instead : {FakeEtcd::unavailable(), FakeEtcd::Answer{{}, 0}}) {
        etcd_.setScript("kv/txn", losingTheFirstAnswer(instead));
        EXPECT_EQ(replica.statusOf("DELETE", targetOf(++number)), 200U);
        EXPECT_EQ(replica.statusOf("DELETE", targetOf(number)), 404U);
    }
}

TEST_F(AReplica, RepeatsAPutOrDeleteWithTheStateThatEtcdReports) {
    for (int number = 1; number <= 4; ++number) {
        put(number, R"({"host":"a","port":1})");
    }
    Replica replica(members(1));
    replica.awaitReady();
    etcd_.silenceWatches();
    remove(1);
    put(2, R"({"a":2})");
    remove(3);
    put(4, R"({"a":2})");
    put(5);
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(1)), 404U);
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(2)), 200U);
    const auto again = replica.ask("PUT", "/3", "{}");
    EXPECT_EQ(again.result(), http::status::created);
    EXPECT_NE(again[http::field::location], targetOf(3));
    EXPECT_THAT(replica.metrics(), HasSubstr("orvx_registry_moves_total 0\n"));
    for (const int number : {4, 5}) {
        const auto replaced = replica.ask("PUT", '/' + std::to_string(number), "{}");
        EXPECT_EQ(replaced.result(), http::status::ok);
        EXPECT_EQ(replaced[http::field::location], targetOf(number));
    }
    EXPECT_THAT(entries_.entriesIn(etcd_.ask("kv/range", entries_.list({}, 10, 0))), SizeIs(3));
}

TEST_F(AReplica, GivesUpAChangeThatConflictsWithOthersAgainAndAgain) {
    Replica replica(members(1));
    replica.awaitReady();
    etcd_.setScript("kv/txn", [this](const json&, const Step& carryOut) {
        put(1);
        return carryOut();
    });
    EXPECT_EQ(replica.ask("PUT", "/1", "{}").result(), http::status::service_unavailable);
    EXPECT_GT(count("kv/txn"), 1U);
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(1)), 503U);
}

TEST_F(AReplica, UsesOneLeaseForManyRemovalsAndANewOneAfterEtcdHasLostIt) {
    for (int number = 1; number <= 3; ++number) {
        put(number);
    }
    Replica replica(members(1));
    replica.awaitReady();
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(1)), 200U);
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(2)), 200U);
    EXPECT_EQ(count("lease/grant"), 1U);
    etcd_.forgetLeases();
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(3)), 503U);
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(3)), 200U);
    EXPECT_EQ(count("lease/grant"), 2U);
}

TEST_F(AReplica, KeepsItsLeaseWhenARemovalFailsForAnotherReason) {
    put(1);
    put(2);
    Replica replica(members(1));
    replica.awaitReady();
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(1)), 200U);
    etcd_.setScript("kv/txn", [](const json&, const Step&) { return FakeEtcd::unavailable(); });
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(2)), 503U);
    etcd_.setScript("kv/txn", {});
    EXPECT_EQ(replica.statusOf("DELETE", targetOf(2)), 200U);
    EXPECT_EQ(count("lease/grant"), 1U);
}

TEST_F(AReplica, AnswersWhenTheCopyHasTheChangeOrAfterASecond) {
    Replica replica(members(1));
    replica.awaitReady();
    const auto timeOf = [](const std::function<void()>& task) {
        const auto begin = Clock::now();
        task();
        return Clock::now() - begin;
    };
    Clock::duration quickest = 1h;
    for (int i = 0; i < 5; ++i) {
        quickest = std::min(quickest, timeOf([&] { replica.put("/lamp"); }));
    }
    EXPECT_LT(quickest, 1s);
    etcd_.holdEvents();
    std::string target;
    EXPECT_GE(timeOf([&] { target = replica.put("/other"); }), 1s);
    EXPECT_THAT(replica.paths(), ElementsAre("/lamp"));
    EXPECT_GE(timeOf([&] { replica.ask("DELETE", target); }), 1s);
    etcd_.releaseEvents();
}

// ---- Checks and expiry

TEST_F(AReplica, RenewsEntriesThatAreCheckedAtOtherReplicas) {
    put(1);
    put(2);
    etcd_.setScript("kv/put", [this](const json&, const Step& carryOut) {
        etcd_.ask("kv/put", entries_.putChecks("other", {uuidOf(1)}));
        return carryOut();
    });
    Replica replica(members(1), kShortTtl);
    Watcher watcher(replica.awaitReady());
    EXPECT_THAT(watcher.until("removed 2"), Contains("checked 1"));
    EXPECT_TRUE(replica.has("/1"));
    // The event may come before the answer to the transaction.
    await([&] {
        return replica.metrics().find("orvx_registry_expirations_total 1\n") != std::string::npos;
    });
    etcd_.setScript("kv/put", {});
    watcher.until("removed 1");
}

TEST_F(AReplica, WritesACheckOnceInARoundAndDoesNotCountItsOwnWriteAsACheck) {
    put(1);
    put(2);
    Replica replica(members(1), kLongTtl);
    Watcher watcher(replica.awaitReady());
    // All checks of entry 1 come in one round, which ends with the write that names entry 2.
    std::promise<void> release;
    checkAndHoldTheWrite(replica, 2, release.get_future());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
    }
    watcher.until("checked 1");
    // A piece of the stream may have a change after "put 3"; the next piece has none of these
    // checks.
    put(3);
    watcher.until("put 3");
    put(4);
    watcher.until("put 4");
    release.set_value();
    etcd_.awaitRequests("kv/put", count("kv/put") + 3);
    EXPECT_EQ(checkWrites(1), 1U);
    put(5);
    EXPECT_THAT(watcher.until("put 5"), Not(Contains("checked 1")));
}

TEST_F(AReplica, WritesACheckInEachRound) {
    put(1);
    Replica replica(members(1), kShortTtl);
    replica.awaitReady();
    await([&] {
        EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
        return checkWrites(1) == 3;
    });
}

TEST_F(AReplica, WritesChecksAgainAfterAFailedWrite) {
    put(1);
    Replica replica(members(1), kLongTtl);
    replica.awaitReady();
    etcd_.setScript("kv/put", [isFirst = std::make_shared<std::atomic<bool>>(true)](
                                  const json& write, const Step& carryOut) {
        return !namesIn(write).empty() && isFirst->exchange(false) ? FakeEtcd::unavailable()
                                                                   : carryOut();
    });
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
    await([&] { return checkWrites(1) == 2; });
}

TEST_F(AReplica, RemovesExpiredEntriesInSeveralTransactionsAndKeepsChangedOnes) {
    constexpr int kCount = 130;
    for (int number = 1; number <= kCount; ++number) {
        put(number);
    }
    etcd_.setScript("kv/txn", [this, isFirst = std::make_shared<std::atomic<bool>>(true)](
                                  const json& transaction, const Step& carryOut) {
        EXPECT_LE(transaction.at("compare").size(), EtcdEntries::kMaxRemovals + 1);
        if (isFirst->exchange(false)) {
            put(kCount, R"({"a":2})");
        }
        return carryOut();
    });
    Replica replica(members(1), kShortTtl);
    Watcher watcher(replica.awaitReady());
    etcd_.awaitRequests("kv/txn", 1);
    await([&] {  // the checks keep the entry until the others have expired
        EXPECT_EQ(replica.statusOf("HEAD", targetOf(kCount)), 200U);
        return replica.paths().size() == 1;
    });
    const auto changes = watcher.until("removed " + std::to_string(kCount));
    const auto position = [&](const std::string& change) {
        return std::find(changes.begin(), changes.end(), change) - changes.begin();
    };
    for (int number = 1; number < kCount; ++number) {
        EXPECT_LT(position("removed " + std::to_string(number)),
                  position("removed " + std::to_string(kCount)));
    }
    await([&] {
        return replica.metrics().find("orvx_registry_expirations_total 130\n") != std::string::npos;
    });
}

TEST_F(AReplica, RecordsAnExpirationWhoseFirstAttemptGotNoAnswer) {
    put(1);
    put(2);
    etcd_.setScript("kv/txn", losingTheFirstAnswer({{}, 0}));
    Replica replica(members(2), kShortTtl);
    etcd_.awaitRequests("kv/txn", 2);
    await([&] {
        return replica.metrics().find("orvx_registry_expirations_total 2\n") != std::string::npos;
    });
}

TEST_F(AReplica, KeepsAnEntryThatIsCheckedWhileOthersExpire) {
    constexpr int kCount = 130;
    constexpr int kChecked = 70;  // an entry of the second transaction
    for (int number = 1; number <= kCount; ++number) {
        put(number);
    }
    std::promise<void> check;
    etcd_.setScript("kv/txn",
                    [isChecked = check.get_future().share()](const json&, const Step& carryOut) {
                        isChecked.wait();
                        return carryOut();
                    });
    Replica replica(members(1), kShortTtl);
    etcd_.awaitRequests("kv/txn", 1);
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(kChecked)), 200U);
    check.set_value();
    await([&] {
        EXPECT_EQ(replica.statusOf("HEAD", targetOf(kChecked)), 200U);
        return replica.paths().size() == 1;
    });
}

TEST_F(AReplica, ExpiresNothingAfterAnotherReplicaHasWrittenChecks) {
    constexpr int kCount = 100;
    std::vector<std::string> all;
    for (int number = 1; number <= kCount; ++number) {
        put(number);
        all.push_back(uuidOf(number));
    }
    etcd_.setScript("kv/txn", [&, isFirst = std::make_shared<std::atomic<bool>>(true)](
                                  const json&, const Step& carryOut) {
        if (isFirst->exchange(false)) {
            etcd_.ask("kv/put", entries_.putChecks("other", all));
        }
        return carryOut();
    });
    Replica replica(members(1), kShortTtl);
    etcd_.awaitRequests("kv/txn", 1);
    etcd_.awaitRequests("kv/put", count("kv/put") + 3);
    EXPECT_EQ(count("kv/txn"), 1U);
    EXPECT_THAT(replica.paths(), SizeIs(kCount));
}

// ---- The end

TEST_F(AReplica, WritesItsLastChecksBeforeItEnds) {
    put(1);
    Replica replica(members(1), kLongTtl);
    replica.awaitReady();
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
    replica.registry().stop();
    EXPECT_EQ(checkWrites(1), 1U);
}

TEST_F(AReplica, EndsSoonWhenEtcdIsSilent) {
    put(1);
    Replica replica(members(5), kLongTtl);
    replica.awaitReady();
    std::promise<void> end;
    etcd_.setScript("kv/put", [ended = end.get_future().share()](const json&, const Step&) {
        ended.wait();
        return FakeEtcd::unavailable();
    });
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(1)), 200U);
    const auto begin = Clock::now();
    replica.registry().stop();
    EXPECT_LT(Clock::now() - begin, 4s);
    end.set_value();
}

TEST_F(AReplica, FinishesAPendingWriteAndWritesLaterChecksBeforeItEnds) {
    put(1);
    put(2);
    Replica replica(members(1), kLongTtl);
    replica.awaitReady();
    std::promise<void> release;
    checkAndHoldTheWrite(replica, 1, release.get_future());
    EXPECT_EQ(replica.statusOf("HEAD", targetOf(2)), 200U);
    std::thread end([&] { replica.registry().stop(); });
    await([&] {
        try {
            replica.connect();
            return false;
        } catch (const std::system_error&) {
            return true;
        }
    });
    release.set_value();
    end.join();
    EXPECT_EQ(checkWrites(2), 1U);
}

TEST(AnEtcdBackend, EndsAlthoughItsNextWriteIsDueWhenItIsStopped) {
    const FakeEtcd etcd;
    asio::io_context context;
    EntryStore store;
    EtcdBackend backend(context, optionsOf({etcd.url()}), kPrefix, store, [] {});
    asio::post(context, [&] { backend.stop(); });
    // Afterwards the timer has expired, but its handler has not run.
    std::this_thread::sleep_until(Clock::now() + 1'100ms);
    context.run_for(5s);
    EXPECT_TRUE(context.stopped());
}

TEST(AnEtcdBackend, LooksForALimitedNumberOfEntriesAtOnce) {
    asio::io_context context;  // does not run, so no look-up ends
    EntryStore store;
    EtcdBackend backend(context, optionsOf({"http://127.0.0.1:1"}), kPrefix, store, [] {});
    using Presence = EntryBackend::Presence;
    std::vector<Presence> answers;
    const auto find = [&](int number) {
        backend.find(uuidOf(number),
                     [&](Presence presence, const Entry*) { answers.push_back(presence); });
    };
    for (int number = 1; number <= 1'000; ++number) {
        find(number);
    }
    find(1'000);  // shares the look-up
    EXPECT_THAT(answers, IsEmpty());
    find(1'001);
    EXPECT_THAT(answers, ElementsAre(Presence::Unknown));
}

TEST(AnEtcdBackend, PassesOnAPutThatIsAnsweredDuringItsLastWrite) {
    FakeEtcd etcd;
    const auto holding = [&etcd](const std::string& call) {
        auto release = std::make_shared<std::promise<void>>();
        etcd.setScript(
            call, [released = release->get_future().share()](const json&, const Step& carryOut) {
                released.wait();
                return carryOut();
            });
        return release;
    };
    const auto write = holding("kv/put");
    const auto change = holding("kv/txn");
    asio::io_context context;
    EntryStore store;
    EtcdBackend backend(context, optionsOf({etcd.url()}), kPrefix, store, [] {});
    const auto runUntil = [&context](const std::function<bool()>& isTrue) {
        const auto end = Clock::now() + 20s;
        while (!isTrue() && !context.stopped() && Clock::now() < end) {
            context.run_one_for(100ms);
        }
        return isTrue();
    };
    EXPECT_TRUE(runUntil([&] { return !etcd.requests("kv/put").empty(); }));
    etcd.holdEvents();
    bool isDone = false;
    backend.put("/lamp", json::object(), {}, [&](const auto& result) {
        isDone = true;
        EXPECT_TRUE(result);
    });
    EXPECT_TRUE(runUntil([&] { return !etcd.requests("kv/txn").empty(); }));
    backend.stop();
    change->set_value();
    EXPECT_TRUE(runUntil([&] { return isDone; }));
    write->set_value();
    EXPECT_TRUE(runUntil([&] { return context.stopped(); }));
}

}  // namespace
}  // namespace orvx::registry
