// Tests the calls of the etcd client, with a real etcd and with fake members whose bytes the test
// writes.
// The client runs on its own thread, the test on the main one; they share futures and a queue,
// which has a lock of its own.

#include <gmock/gmock.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "Base64.h"
#include "EtcdClient.h"
#include "EtcdProcess.h"
#include "RawConnection.h"
#include "RunningEtcdClient.h"

namespace orvx::registry {
namespace {

namespace asio = boost::asio;
using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using Result = EtcdClient::Result;

TEST(MembersOfEtcd, AreReadFromAList) {
    EXPECT_THAT(parseMembers("http://a:2379,https://[::1]:2379"),
                ::testing::ElementsAre("http://a:2379", "https://[::1]:2379"));
}

TEST(MembersOfEtcd, AreRefusedWhenOneIsNoUrl) {
    for (const std::string list :
         {"", ",", "a:2379", "http://a,", "http://", "http://a/path", "ftp://a", "http://a:b",
          "http://a:65536", "http://a:", "http://u@a", "http://a, http://b", "http://[::1"}) {
        EXPECT_THROW(parseMembers(list), std::invalid_argument) << list;
    }
    asio::io_context context;
    EXPECT_THROW(EtcdClient(context, EtcdOptions{}), std::invalid_argument);
}

TEST(MembersOfEtcd, AreRefusedByTheirNumberWithoutShowingAPassword) {
    for (const char* list : {"http://a:1,http://user:hunter2@b:2",
                             "http://a:1,http://u:hunter2,c@b", "http://a:1,hunter2"}) {
        try {
            parseMembers(list);
            ADD_FAILURE() << list;
        } catch (const std::invalid_argument& error) {
            EXPECT_THAT(error.what(),
                        AllOf(StartsWith("member 2 of etcd"), Not(HasSubstr("hunter2"))));
        }
    }
}

const json kKeyA{{"key", "YQ=="}};

TEST(AnEtcdClient, WritesAndReads) {
    const EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    const Result put = client.put("a", "1");
    ASSERT_TRUE(put.answer) << put.error;
    EXPECT_FALSE(put.isUncertain);
    const Result got = client.get("a");
    ASSERT_TRUE(got.answer) << got.error;
    EXPECT_EQ(got.answer->at("kvs").at(0).at("value"), "MQ==");
}

TEST(AnEtcdClient, ReadsALongAnswer) {
    const EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    const std::string value(1'000'000, 'x');
    for (const std::string key : {"a1", "a2", "a3"}) {
        ASSERT_TRUE(client.put(key, value).answer);
    }
    const Result got =
        client.ask("kv/range", {{"key", encode64("a")}, {"range_end", encode64("b")}});
    ASSERT_TRUE(got.answer) << got.error;
    EXPECT_EQ(decode64(got.answer->at("kvs").at(2).at("value").get<std::string>()), value);
}

TEST(AnEtcdClient, AsksNoOtherMemberAfterARefusal) {
    const EtcdProcess etcd;
    const FakeMember other;
    RunningEtcdClient client(optionsOf({etcd.url(), other.url()}));
    const Result result = client.get("");
    EXPECT_FALSE(result.answer);
    EXPECT_EQ(result.refusal, 3);
    EXPECT_EQ(result.error, "HTTP 400: etcdserver: key is not provided");
    EXPECT_FALSE(result.isUncertain);
}

TEST(AnEtcdClient, WorksAfterARestartOfEtcd) {
    EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    ASSERT_TRUE(client.put("a", "1").answer);
    etcd.stop();
    EXPECT_THAT(client.get("a").error, HasSubstr("Connection refused"));
    etcd.start();
    const Result got = client.get("a");
    ASSERT_TRUE(got.answer) << got.error;
    EXPECT_EQ(got.answer->at("kvs").at(0).at("value"), "MQ==");
}

TEST(AnEtcdClient, HasACertainResultAlthoughEtcdWasRestartedBetweenTwoCalls) {
    EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    ASSERT_TRUE(client.put("a", "1").answer);
    etcd.stop();
    etcd.start();
    const Result put = client.put("a", "2");
    EXPECT_TRUE(put.answer) << put.error;
    EXPECT_FALSE(put.isUncertain);
}

TEST(AnEtcdClient, StaysWithTheMemberThatAnsweredLast) {
    const FakeMember first;
    const FakeMember second;
    RunningEtcdClient client(optionsOf({first.url(), second.url()}, 1s));
    auto before = client.call();
    RawConnection atFirst = first.listener.accept();
    readRequest(atFirst);
    atFirst.send(answerOf("{}"));
    ASSERT_TRUE(resultOf(before).answer);
    auto moved = client.call();
    readRequest(atFirst);  // but does not answer
    RawConnection atSecond = second.listener.accept();
    readRequest(atSecond);
    atSecond.send(answerOf("{}"));
    const Result uncertain = resultOf(moved);
    ASSERT_TRUE(uncertain.answer) << uncertain.error;
    EXPECT_TRUE(uncertain.isUncertain);
    auto after = client.call();
    readRequest(atSecond);
    atSecond.send(answerOf("{}"));
    const Result certain = resultOf(after);
    ASSERT_TRUE(certain.answer) << certain.error;
    EXPECT_FALSE(certain.isUncertain);
}

TEST(AnEtcdClient, AcceptsOnlyAnswersOfTheRequiredCluster) {
    const EtcdProcess other;
    EtcdProcess etcd;
    const auto clusterOf = [](const Result& result) {
        return result.answer->at("header").at("cluster_id").get<std::string>();
    };
    const auto require = [](RunningEtcdClient& client, const std::string& cluster, Texts& others) {
        client.run([&](EtcdClient& inner) {
            inner.requireCluster(cluster, [&](const std::string& name) { others.add(name); });
        });
    };
    Texts others;
    RunningEtcdClient single(optionsOf({etcd.url()}));
    const std::string cluster = clusterOf(single.get("a"));
    RunningEtcdClient client(optionsOf({other.url(), etcd.url()}));
    const std::string otherCluster = clusterOf(client.get("a"));
    require(client, cluster, others);
    const Result put = client.put("a", "1");
    ASSERT_TRUE(put.answer) << put.error;
    EXPECT_EQ(clusterOf(put), cluster);
    EXPECT_FALSE(put.isUncertain);
    EXPECT_THAT(put.otherCluster, IsEmpty());
    EXPECT_EQ(others.next(), other.url());
    etcd.stop();
    const Result failed = client.get("a");
    EXPECT_FALSE(failed.answer);
    EXPECT_THAT(failed.error, HasSubstr(other.url() + ": a member of another cluster"));
    EXPECT_THAT(failed.otherCluster, IsEmpty());
    etcd.start();
    require(client, "1", others);
    EXPECT_THAT(client.get("a").otherCluster, IsEmpty());
    require(single, "1", others);
    EXPECT_EQ(single.get("a").otherCluster, cluster);
    EXPECT_NE(cluster, otherCluster);
}

TEST(AnEtcdClient, EndsAWatchOfAnotherCluster) {
    const EtcdProcess etcd;
    Texts texts;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    client.run([](EtcdClient& inner) { inner.requireCluster("1", [](const std::string&) {}); });
    client.watch(kKeyA, texts);
    EXPECT_EQ(texts.next(), "end: " + etcd.url() + ": a member of another cluster");
}

TEST(AnEtcdClient, AsksTheNextMemberWhenOneRefusesTheConnection) {
    const ReservedPort nobody;
    const EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({urlOf(nobody.number()), etcd.url()}));
    const Result put = client.put("a", "1");
    EXPECT_TRUE(put.answer) << put.error;
    EXPECT_THAT(put.error, IsEmpty());
    EXPECT_FALSE(put.isUncertain);
}

TEST(AnEtcdClient, DoesNotWaitForALeader) {
    EtcdCluster cluster(3);
    RunningEtcdClient client(optionsOf({cluster.urls()[0]}));
    ASSERT_TRUE(client.put("a", "1").answer);
    Texts texts;
    client.watch(kKeyA, texts);
    EXPECT_THAT(texts.next(), HasSubstr("created"));
    cluster[1].stop();
    cluster[2].stop();
    EXPECT_THAT(texts.next(), StartsWith("end: "));
    const Result put = client.put("a", "2");
    EXPECT_THAT(put.error, HasSubstr("etcdserver: no leader"));
    EXPECT_FALSE(put.isUncertain);
}

TEST(AnEtcdClient, AsksEachMemberOnce) {
    const FakeMember first;
    const FakeMember second;
    RunningEtcdClient client(optionsOf({first.url(), second.url()}));
    auto result = client.call();
    const std::string unavailable =
        answerOf(R"({"error":"e","message":"etcdserver: request timed out","code":14})", "503 X");
    RawConnection atFirst = first.listener.accept();
    EXPECT_THAT(readRequest(atFirst), AllOf(StartsWith("POST /v3/kv/range HTTP/1.1\r\n"),
                                            HasSubstr("\r\nHost: " + first.url().substr(7)),
                                            HasSubstr("\r\n\r\n{\"key\":\"YQ==\"}")));
    atFirst.send(unavailable);
    RawConnection atSecond = second.listener.accept();
    readRequest(atSecond);
    atSecond.send(unavailable);
    const Result got = resultOf(result);
    EXPECT_EQ(got.error, first.url() + ": HTTP 503: etcdserver: request timed out; " +
                             second.url() + ": HTTP 503: etcdserver: request timed out");
    EXPECT_FALSE(got.answer);
    EXPECT_EQ(got.refusal, 0);
    EXPECT_TRUE(got.isUncertain);
}

TEST(AnEtcdClient, DistinguishesFinalErrorsAndErrorsWithoutAnEffect) {
    struct Case {
        std::string status, message;
        int code;
        bool isFinal, isUncertain;
    };
    const FakeMember first;
    const FakeMember second;
    for (const Case& c : std::vector<Case>{
             {"400 X", "etcdserver: duplicate key given in txn request", 3, true, false},
             {"404 X", "etcdserver: requested lease not found", 5, true, false},
             {"403 X", "etcdserver: permission denied", 7, true, false},
             {"412 X", "etcdserver: authentication is not enabled", 9, true, false},
             {"400 X", "etcdserver: mvcc: required revision has been compacted", 11, true, false},
             {"401 X", "etcdserver: invalid auth token", 16, true, false},
             {"503 X", "etcdserver: no leader", 14, false, false},
             {"429 X", "etcdserver: too many requests", 8, false, false},
             {"500 X", "raft proposal dropped", 2, false, false},
             {"503 X", "etcdserver: request timed out, possibly due to previous leader failure", 14,
              false, true},
             {"503 X", "etcdserver: leader changed", 14, false, true},
             {"503 X", "transport is closing", 14, false, true},
             {"504 X", "context deadline exceeded", 4, false, true},
             {"400 X", "", 0, false, true},
         }) {
        RunningEtcdClient client(optionsOf({first.url(), second.url()}));
        auto result = client.call();
        RawConnection atFirst = first.listener.accept();
        readRequest(atFirst);
        const json error{{"error", c.message}, {"message", c.message}, {"code", c.code}};
        atFirst.send(answerOf(c.code == 0 ? "Bad Request" : error.dump(), c.status));
        if (!c.isFinal) {
            RawConnection atSecond = second.listener.accept();
            readRequest(atSecond);
            atSecond.send(answerOf("{}"));
        }
        const Result got = resultOf(result);
        EXPECT_EQ(got.answer.has_value(), !c.isFinal) << c.message;
        EXPECT_EQ(got.refusal, c.isFinal ? c.code : 0) << c.message;
        EXPECT_EQ(got.isUncertain, c.isUncertain) << c.message;
        EXPECT_THAT(got.error, HasSubstr(c.isFinal ? c.message : "")) << c.message;
    }
}

// An error does not say which cluster its member belongs to.
TEST(AnEtcdClient, BeginsTheNextCallAtAnotherMemberAfterARefusal) {
    const FakeMember first;
    const FakeMember second;
    RunningEtcdClient client(optionsOf({first.url(), second.url()}));
    const auto answerAt = [](const FakeMember& member, const char* message, int code,
                             const char* status) {
        RawConnection connection = member.listener.accept();
        readRequest(connection);
        const json error{{"error", message}, {"message", message}, {"code", code}};
        connection.send(answerOf(error.dump(), status));
    };
    auto refused = client.call();
    answerAt(first, "etcdserver: no leader", 14, "503 X");
    answerAt(second, "etcdserver: invalid auth token", 16, "401 X");
    EXPECT_EQ(resultOf(refused).refusal, 16);
    auto refusedAgain = client.call();
    answerAt(first, "etcdserver: invalid auth token", 16, "401 X");
    EXPECT_EQ(resultOf(refusedAgain).refusal, 16);
    auto answered = client.call();
    RawConnection atSecond = second.listener.accept();
    readRequest(atSecond);
    atSecond.send(answerOf("{}"));
    EXPECT_TRUE(resultOf(answered).answer);
}

TEST(AnEtcdClient, RefusesTruncatedAndHostileAnswers) {
    const FakeMember member;
    const std::string json200 = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
    for (const std::string& bytes : std::vector<std::string>{
             "",
             "\n",
             "nonsense\r\n\r\n",
             std::string("\0\xff\xfe\x16\x03\x01", 6),
             "HTTP/1.1 200 OK\r\n",
             "HTTP/1.1 200 OK\r\n" + std::string(100'000, 'x'),
             "HTTP/1.1 200 OK\r\n\r\n",
             "HTTP/1.1 200 OK\r\n\r\n{\"a\":",
             json200 + "Content-Length: 10\r\n\r\n{}",
             json200 + "Content-Length: -1\r\n\r\n{}",
             json200 + "Content-Length: 9223372036854775807\r\n\r\n{}",
             json200 + "Content-Length: 99999999999999999999999\r\n\r\n{}",
             json200 + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}",
             json200 + "Transfer-Encoding: chunked\r\n\r\nxyz\r\n",
             json200 + "Transfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n{}",
             json200 + "Transfer-Encoding: chunked\r\n\r\n7fffffffffffffff\r\n{}",
             json200 + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n",
             answerOf(""),
             answerOf("null"),
             answerOf("[]"),
             answerOf("{\"a\":1}}"),
             answerOf("{\"a\":\"\xff\"}"),
             answerOf("{\"error\":{\"code\":\"3\",\"message\":[]}}"),
             answerOf("{\"error\":3,\"message\":{},\"code\":-3}", "400 X"),
             answerOf(std::string(1'000'000, '[')),
             answerOf(std::string(100'000, '[') + std::string(100'000, ']')),
             answerOf("{\"a\":" + std::string(100'000, '[') + std::string(100'000, ']') + '}'),
             answerOf("{}", "204 No Content"),
             answerOf("{}", "302 Found"),
             answerOf("", "101 Switching Protocols"),
         }) {
        RunningEtcdClient client(optionsOf({member.url()}));
        auto result = client.call();
        RawConnection connection = member.listener.accept();
        readRequest(connection);
        connection.send(bytes);
        connection.endSending();
        const Result got = resultOf(result);
        EXPECT_FALSE(got.answer) << bytes.substr(0, 200);
        EXPECT_THAT(got.error, StartsWith(member.url() + ": "));
        EXPECT_EQ(got.refusal, 0);
        EXPECT_TRUE(got.isUncertain);
    }
}

TEST(AnEtcdClient, RefusesAnAnswerBeyondItsLimit) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    auto announced = client.call();
    RawConnection first = member.listener.accept();
    readRequest(first);
    first.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(EtcdClient::kMaxAnswer + 1) +
               "\r\n\r\n");
    EXPECT_THAT(resultOf(announced).error, HasSubstr("body limit exceeded"));

    auto chunked = client.call();
    RawConnection second = member.listener.accept();
    readRequest(second);
    second.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    const std::string chunk = chunkOf(std::string(EtcdClient::kMaxAnswer / 2, ' '));
    second.send(chunk);
    second.send(chunk);
    EXPECT_THROW(second.send(chunkOf(" ") + chunk), std::exception);
    EXPECT_THAT(resultOf(chunked).error, HasSubstr("body limit exceeded"));
}

TEST(AnEtcdClient, ReplacesControlCharactersInItsErrors) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    auto result = client.call();
    RawConnection connection = member.listener.accept();
    readRequest(connection);
    const json error{{"message", "\x1b[2J\n\xc3\xa4" + std::string(1'000, 'x')}, {"code", 3}};
    connection.send(answerOf(error.dump(), "400 X"));
    const std::string reason = resultOf(result).error;
    EXPECT_THAT(reason, StartsWith("HTTP 400: ?[2J???xxx"));
    EXPECT_EQ(reason.size(), 200U);
}

TEST(AnEtcdClient, KeepsItsConnections) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    auto result = client.call();
    RawConnection connection = member.listener.accept();
    for (int i = 0; i < 10; ++i) {
        readRequest(connection);
        connection.send(answerOf("{}"));
        EXPECT_TRUE(resultOf(result).answer);
        result = client.call();
    }
}

TEST(AnEtcdClient, GivesACallOnAKeptConnectionItsFullTime) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}, 1s));
    auto result = client.call();
    RawConnection connection = member.listener.accept();
    readRequest(connection);
    connection.send(answerOf("{}"));
    EXPECT_TRUE(resultOf(result).answer);
    EXPECT_FALSE(connection.endsWithin(1'100ms));  // the time of the first call is over
    result = client.call();
    readRequest(connection);
    EXPECT_FALSE(connection.endsWithin(50ms));  // nor does it end this one
    connection.send(answerOf("{}"));
    const Result got = resultOf(result);
    EXPECT_TRUE(got.answer) << got.error;
}

TEST(AnEtcdClient, ConnectsAgainWhenEtcdHasClosedAKeptConnection) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    auto result = client.call();
    {
        RawConnection connection = member.listener.accept();
        readRequest(connection);
        connection.send(answerOf("{}"));
        EXPECT_TRUE(resultOf(result).answer);
    }
    result = client.call();
    RawConnection connection = member.listener.accept();
    readRequest(connection);
    connection.send(answerOf("{}"));
    const Result got = resultOf(result);
    EXPECT_TRUE(got.answer) << got.error;
    EXPECT_FALSE(got.isUncertain);
}

TEST(AnEtcdClient, AsksTheSameMemberAgainWhenAKeptConnectionEndsWithoutAnAnswer) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    auto result = client.call();
    {
        RawConnection connection = member.listener.accept();
        readRequest(connection);
        connection.send(answerOf("{}"));
        EXPECT_TRUE(resultOf(result).answer);
        result = client.call();
        readRequest(connection);
    }
    RawConnection connection = member.listener.accept();
    readRequest(connection);
    connection.send(answerOf("{}"));
    const Result got = resultOf(result);
    EXPECT_TRUE(got.answer) << got.error;
    EXPECT_TRUE(got.isUncertain);
}

TEST(AnEtcdClient, DoesNotTakeLeftoverBytesForTheNextAnswer) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    auto result = client.call();
    RawConnection first = member.listener.accept();
    readRequest(first);
    first.send(answerOf("{}") + answerOf(R"({"forged":1})"));
    EXPECT_TRUE(resultOf(result).answer);
    result = client.call();
    RawConnection second = member.listener.accept();
    readRequest(second);
    second.send(answerOf(R"({"real":1})"));
    EXPECT_EQ(resultOf(result).answer, json({{"real", 1}}));
}

TEST(AnEtcdClient, GivesASilentMemberUpInTime) {
    const FakeMember first;
    const FakeMember second;
    RunningEtcdClient client(optionsOf({first.url(), second.url()}, 200ms));
    const auto begin = std::chrono::steady_clock::now();
    auto result = client.call();
    const Result got = resultOf(result);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);
    EXPECT_FALSE(got.answer);
    EXPECT_THAT(got.error, AllOf(HasSubstr(first.url()), HasSubstr(second.url())));
    EXPECT_TRUE(got.isUncertain);
}

TEST(AnEtcdClient, RunsCallsInParallelUpToABound) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    std::vector<std::future<Result>> results;
    for (std::size_t i = 0; i < EtcdClient::kMaxCalls + 5; ++i) {
        results.push_back(client.call());
    }
    std::vector<RawConnection> connections;
    for (std::size_t i = 0; i < EtcdClient::kMaxCalls; ++i) {
        connections.push_back(member.listener.accept());
        readRequest(connections.back());
    }
    for (int i = 0; i < 6; ++i) {  // the other calls follow on the first one's connection
        connections[0].send(answerOf("{}"));
        if (i < 5) {
            readRequest(connections[0]);
        }
    }
    for (std::size_t i = 1; i < connections.size(); ++i) {
        connections[i].send(answerOf("{}"));
    }
    for (auto& result : results) {
        EXPECT_TRUE(resultOf(result).answer);
    }
}

TEST(AnEtcdClient, EndsCallsThatWaitTooLongForOthers) {
    const FakeMember silent;
    std::vector<std::promise<Result>> results(10 * EtcdClient::kMaxCalls);
    RunningEtcdClient client(optionsOf({silent.url()}, 200ms));
    client.run([&](EtcdClient& inner) {
        for (auto& result : results) {
            inner.call("kv/range", kKeyA, [&](Result r) { result.set_value(std::move(r)); });
        }
    });
    std::size_t ended = 0;
    for (auto& result : results) {
        auto future = result.get_future();
        const std::string error = resultOf(future).error;
        EXPECT_THAT(error, Not(IsEmpty()));
        ended += error.find("too many calls") != std::string::npos ? 1U : 0U;
    }
    EXPECT_GE(ended, 7 * EtcdClient::kMaxCalls);
}

TEST(AnEtcdClient, ConnectsByName) {
    const EtcdProcess etcd;
    const std::string byName = "http://localhost" + etcd.url().substr(etcd.url().rfind(':'));
    RunningEtcdClient client(optionsOf({byName}));
    const Result put = client.put("a", "1");
    EXPECT_TRUE(put.answer) << put.error;
}

TEST(AnEtcdClient, ReportsAnUnknownName) {
    RunningEtcdClient client(optionsOf({"http://name.invalid:1"}));
    const Result put = client.put("a", "1");
    EXPECT_THAT(put.error, StartsWith("http://name.invalid:1: "));
    EXPECT_FALSE(put.isUncertain);
}

TEST(AnEtcdClient, CallsNothingFromInsideItsFunctionsOrAfterClose) {
    const FakeMember silent;
    asio::io_context context;
    std::vector<RawConnection> connections;
    auto owned = std::make_shared<int>(0);
    const auto unexpected = [owned](auto&&...) { ADD_FAILURE() << "a handler was called"; };
    EtcdClient client(context, optionsOf({silent.url()}));
    for (std::size_t i = 0; i < EtcdClient::kMaxCalls + 1; ++i) {
        client.call("kv/range", kKeyA, unexpected);
    }
    client.watch(kKeyA, unexpected, unexpected);
    for (std::size_t i = 0; i < EtcdClient::kMaxCalls + 1; ++i) {
        context.run_for(10ms);
        connections.push_back(silent.listener.accept());
    }
    client.close();
    client.close();
    client.call("kv/range", kKeyA, unexpected);
    client.watch(kKeyA, unexpected, unexpected);
    context.restart();
    context.run();  // ends: nothing is under way any more
    EXPECT_EQ(owned.use_count(), 2);
}

TEST(AnEtcdClient, MayBeDestroyedByAHandler) {
    const ReservedPort nobody;
    asio::io_context context;
    auto client = std::make_unique<EtcdClient>(context, optionsOf({urlOf(nobody.number())}));
    int calls = 0;
    for (int i = 0; i < 3; ++i) {
        client->call("kv/range", kKeyA, [&](const Result&) {
            ++calls;
            client.reset();
        });
    }
    context.run();
    EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace orvx::registry
