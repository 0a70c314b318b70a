// Tests the watches of the etcd client, with a real etcd and with fake members whose bytes the test
// writes.
// The client runs on its own thread, the test on the main one; they share futures and a queue,
// which has a lock of its own.

#include <gmock/gmock.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Base64.h"
#include "EtcdClient.h"
#include "EtcdProcess.h"
#include "RawConnection.h"
#include "RunningEtcdClient.h"

namespace orvx::registry {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const json kWatchOfA{{"key", "YQ=="}};

TEST(AWatchOfEtcd, ReportsChanges) {
    const EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    Texts texts;
    client.watch(kWatchOfA, texts);
    EXPECT_TRUE(json::parse(texts.next()).at("created"));
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(client.put("a", std::to_string(i)).answer);
    }
    int count = 0;
    while (count < 100) {
        const json result = json::parse(texts.next());
        for (const json& event : result.at("events")) {
            EXPECT_EQ(event.at("kv").at("value"), encode64(std::to_string(count++)));
        }
    }
}

TEST(AWatchOfEtcd, IsCanceledByACompaction) {
    const EtcdProcess etcd;
    RunningEtcdClient client(optionsOf({etcd.url()}));
    ASSERT_TRUE(client.put("a", "1").answer);
    ASSERT_TRUE(client.put("a", "2").answer);
    ASSERT_TRUE(client.ask("kv/compaction", {{"revision", "3"}}).answer);
    Texts texts;
    client.watch({{"key", "YQ=="}, {"start_revision", "2"}}, texts);
    EXPECT_THAT(texts.next(), HasSubstr("created"));
    const json canceled = json::parse(texts.next());
    EXPECT_TRUE(canceled.at("canceled"));
    EXPECT_EQ(canceled.at("compact_revision"), "3");
}

TEST(AWatchOfEtcd, EndsWithEtcdAndBeginsAtTheNextMember) {
    EtcdProcess first;
    const EtcdProcess second;
    RunningEtcdClient client(optionsOf({first.url(), second.url()}));
    Texts texts;
    client.watch(kWatchOfA, texts);
    EXPECT_THAT(texts.next(), HasSubstr("created"));
    first.stop();
    EXPECT_THAT(texts.next(), StartsWith("end: " + first.url() + ": "));
    client.watch(kWatchOfA, texts);
    EXPECT_THAT(texts.next(), HasSubstr("created"));
    second.pause();
    client.watch(kWatchOfA, texts);
    EXPECT_THAT(texts.next(), AllOf(StartsWith("end: " + first.url()), HasSubstr("refused")));
    EXPECT_TRUE(texts.isEmpty());
}

TEST(AWatchOfEtcd, EndsWhenTheMemberDoesNotBeginToAnswer) {
    const EtcdProcess etcd;
    etcd.pause();
    RunningEtcdClient client(optionsOf({etcd.url()}, 200ms));
    Texts texts;
    client.watch(kWatchOfA, texts);
    EXPECT_THAT(texts.next(), StartsWith("end: " + etcd.url() + ": "));
}

TEST(AWatchOfEtcd, HasNoTimeOutOnceItHasBegun) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}, 200ms));
    Texts texts;
    client.watch(kWatchOfA, texts);
    RawConnection connection = acceptWatch(member);
    connection.send(chunkOf("{\"result\":{}}\n"));
    EXPECT_EQ(texts.next(), "{}");
    EXPECT_FALSE(connection.endsWithin(600ms));
    connection.send(chunkOf("{\"result\":{\"a\":1}}\n"));
    EXPECT_EQ(texts.next(), "{\"a\":1}");
}

TEST(AWatchOfEtcd, ReadsLinesHoweverTheyAreCut) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    Texts texts;
    client.watch(kWatchOfA, texts);
    RawConnection connection = acceptWatch(member);
    const std::string lines = "{\"result\":{\"a\":1}}\n{\"result\":{\"b\":[2]}}\n";
    connection.send(chunkOf(lines + lines.substr(0, 5)));
    EXPECT_EQ(texts.next(), "{\"a\":1}");
    EXPECT_EQ(texts.next(), "{\"b\":[2]}");
    for (const char byte : chunkOf(lines.substr(5, 3)) + chunkOf(lines.substr(8))) {
        connection.send({byte});
    }
    EXPECT_EQ(texts.next(), "{\"a\":1}");
    EXPECT_EQ(texts.next(), "{\"b\":[2]}");
    const std::string big(1'000'000, 'x');
    connection.send(chunkOf("{\"result\":{\"c\":\"" + big) + chunkOf("\"}}\n") + "0\r\n\r\n");
    EXPECT_EQ(texts.next(), "{\"c\":\"" + big + "\"}");
    EXPECT_EQ(texts.next(), "end: " + member.url() + ": the stream ended");
}

TEST(AWatchOfEtcd, EndsAtALineThatIsNotAResult) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    Texts texts;
    for (const auto& [line, reason] : std::vector<std::pair<std::string, std::string>>{
             {R"({"error":{"grpc_code":14,"http_code":503,"message":"etcdserver: no leader"}})",
              "HTTP 200: etcdserver: no leader"},
             {R"({"result":[]})", "HTTP 200: no answer of etcd"},
             {R"({"result":1})", "HTTP 200: no answer of etcd"},
             {"[]", "HTTP 200: no answer of etcd"},
             {"", "HTTP 200: no answer of etcd"},
             {"{\"result\":{}", "HTTP 200: no answer of etcd"},
             {std::string(1'000'000, '['), "HTTP 200: no answer of etcd"},
             {"\xff", "HTTP 200: no answer of etcd"}}) {
        client.watch(kWatchOfA, texts);
        RawConnection connection = acceptWatch(member);
        connection.send(chunkOf(line + "\n{\"result\":{}}\n"));
        EXPECT_EQ(texts.next(), "end: " + member.url() + ": " + reason) << line.substr(0, 100);
    }
    EXPECT_TRUE(texts.isEmpty());
}

TEST(AWatchOfEtcd, EndsWhenItIsRefusedOrCutOff) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    Texts texts;
    const std::string ok = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const auto& [bytes, reason] : std::vector<std::pair<std::string, std::string>>{
             {"", "end of stream"},
             {"HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\n", "body limit"},
             {answerOf(R"({"error":{"message":"etcdserver: no leader"}})", "503 X"),
              "HTTP 503: etcdserver: no leader"},
             {answerOf("Not Found\n", "404 X"), "HTTP 404: no answer of etcd"},
             {ok + "zz\r\n", "bad chunk"},
             {ok, "partial message"},
             {ok + "10\r\n{\"result\"", "partial message"}}) {
        client.watch(kWatchOfA, texts);
        RawConnection connection = member.listener.accept();
        connection.readUntil("}}");
        connection.send(bytes);
        connection.endSending();
        EXPECT_THAT(texts.next(), AllOf(StartsWith("end: " + member.url()), HasSubstr(reason)));
    }
    EXPECT_TRUE(texts.isEmpty());
}

TEST(AWatchOfEtcd, EndsAtALineBeyondTheLimit) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    Texts texts;
    client.watch(kWatchOfA, texts);
    RawConnection connection = acceptWatch(member);
    const std::string chunk = chunkOf(std::string(EtcdClient::kMaxAnswer / 2, ' '));
    connection.send(chunk);
    connection.send(chunk);
    connection.send(chunkOf(" "));
    EXPECT_EQ(texts.next(), "end: " + member.url() + ": a line is too long");
}

TEST(AWatchOfEtcd, MayBeReplacedOrStoppedByItsHandler) {
    const FakeMember member;
    RunningEtcdClient client(optionsOf({member.url()}));
    Texts texts;
    client.run([&](EtcdClient& etcd) {
        etcd.watch(
            kWatchOfA,
            [&](const json&) {
                texts.add("first");
                etcd.watch(
                    kWatchOfA,
                    [&](const json&) {
                        texts.add("second");
                        etcd.stopWatch();
                    },
                    [&](const std::string& error) { texts.add(error); });
            },
            [&](const std::string& error) { texts.add(error); });
    });
    RawConnection first = acceptWatch(member);
    first.send(chunkOf("{\"result\":{}}\n{\"result\":{}}\n"));
    EXPECT_EQ(texts.next(), "first");
    EXPECT_TRUE(first.isClosedByPeer());
    RawConnection second = acceptWatch(member);
    second.send(chunkOf("{\"result\":{}}\n{\"result\":{}}\n"));
    EXPECT_EQ(texts.next(), "second");
    EXPECT_TRUE(second.isClosedByPeer());
    EXPECT_TRUE(texts.isEmpty());
}

}  // namespace
}  // namespace orvx::registry
