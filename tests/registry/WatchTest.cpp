// Tests the events for a reader of the stream, without sockets.
// Everything runs on the test's thread, which also sets the clock.
// There is no lock.

#include "Watch.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "ProcessorTime.h"

namespace orvx::registry {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Event {
    std::string name;
    std::string id;
    json data;
};

std::string fieldOf(const std::string& text, const std::string& name) {
    const auto begin = text.find(name + ": ");
    if (begin == std::string::npos) {
        return {};
    }
    const auto value = begin + name.size() + 2;
    return text.substr(value, text.find('\n', value) - value);
}

std::vector<Event> parse(const std::string& text) {
    std::vector<Event> events;
    for (std::size_t begin = 0; begin < text.size();) {
        const auto end = text.find("\n\n", begin);
        const std::string event = text.substr(begin, end - begin);
        events.push_back(
            {fieldOf(event, "event"), fieldOf(event, "id"), json::parse(fieldOf(event, "data"))});
        begin = end + 2;
    }
    return events;
}

class TheWatch : public ::testing::Test {
  protected:
    std::string put(const std::string& path, const json& service = json::object()) {
        return store_.put(path, service).entry.uuid;
    }

    /// All pending events except `state`.
    std::vector<Event> read(Watch& watch) {
        std::vector<Event> events;
        for (std::string piece = watch.next(store_, 0); !piece.empty();
             piece = watch.next(store_, 0)) {
            for (Event& event : parse(piece)) {
                if (event.name != "state") {
                    events.push_back(std::move(event));
                }
            }
        }
        return events;
    }

    std::vector<std::string> readNames(Watch& watch) {
        std::vector<std::string> names;
        for (const Event& event : read(watch)) {
            names.push_back(event.name + (event.name == "put" ? event.data.value("path", "") : ""));
        }
        return names;
    }

    EntryStore::Time now_{};
    EntryStore store_{{0ms, 100'000, "", [this] { return now_; }}};
};

TEST_F(TheWatch, SendsTheListFirst) {
    put("/a");
    put("/b");
    Watch watch(store_, "");
    EXPECT_THAT(readNames(watch), ElementsAre("list", "put/a", "put/b", "listed"));
    EXPECT_THAT(readNames(watch), IsEmpty());
}

TEST_F(TheWatch, SendsAnEntryWithItsTimes) {
    const std::string uuid = put("/a", {{"host", "10.0.0.1"}, {"port", 80}});
    now_ += 2s;
    store_.check(uuid);
    now_ += 3s;
    Watch watch(store_, "");
    const json first = read(watch).at(1).data;
    EXPECT_EQ(first.at("uuid"), uuid);
    EXPECT_EQ(first.at("path"), "/a");
    EXPECT_EQ(first.at("service"), json({{"host", "10.0.0.1"}, {"port", 80}}));
    EXPECT_EQ(first.at("checks"), 1);
    EXPECT_EQ(first.at("checked"), 3'000);
    EXPECT_EQ(first.at("renewed"), 3'000);
    EXPECT_FALSE(first.contains("moved"));
    put("/a", {{"host", "10.0.0.2"}, {"port", 80}});
    now_ += 1s;
    const json second = read(watch).at(0).data;
    EXPECT_EQ(second.at("renewed"), 1'000);
    EXPECT_EQ(second.at("moved"), json({{"from", "10.0.0.1:80"}, {"age", 1'000}}));
}

TEST_F(TheWatch, SendsAnAgeOfZeroForAnEntryWhoseCreatorsClockIsAhead) {
    Entry entry;
    entry.uuid = randomUuid();
    entry.path = "/a";
    entry.service = "{}";
    entry.created = std::chrono::system_clock::now() + 1h;
    store_.adopt(entry);
    Watch watch(store_, "");
    EXPECT_EQ(read(watch).at(1).data.at("age"), 0);
}

TEST_F(TheWatch, SendsTheNumberOfAnEntryAlsoWhenItIsPutAgain) {
    put("/a");
    put("/b");
    put("/a");
    Watch watch(store_, "");
    const auto events = read(watch);
    EXPECT_EQ(events.at(1).data.at("path"), "/b");
    EXPECT_GT(events.at(1).data.at("number"), events.at(2).data.at("number"));
}

TEST_F(TheWatch, SendsChangesInTheirOrder) {
    Watch watch(store_, "");
    read(watch);
    const std::string a = put("/a");
    const std::string b = put("/b");
    store_.check(a);
    store_.remove(b);
    put("/c");
    EXPECT_THAT(readNames(watch), ElementsAre("put/a", "checked", "removed", "put/c"));
    EXPECT_THAT(readNames(watch), IsEmpty());
}

TEST_F(TheWatch, SendsAnEntryThatChangedTwiceOnceWithItsLatestState) {
    Watch watch(store_, "");
    read(watch);
    put("/a", {{"port", 1}});
    put("/a", {{"port", 2}});
    const auto events = read(watch);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].data.at("service").at("port"), 2);
}

TEST_F(TheWatch, SendsManyChecksInOneEvent) {
    const std::string a = put("/a");
    const std::string b = put("/b");
    Watch watch(store_, "");
    read(watch);
    store_.check(a);
    store_.check(b);
    store_.check(a);
    now_ += 1s;
    const auto events = read(watch);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].data, json::array({{b, 1, 1'000}, {a, 2, 1'000}}));
}

TEST_F(TheWatch, LeavesOutTheChecksForAReaderThatDoesNotWantThem) {
    const std::string a = put("/a");
    store_.check(a);
    Watch watch(store_, "", false);
    EXPECT_THAT(readNames(watch), ElementsAre("list", "put/a", "listed"));
    store_.check(a);
    EXPECT_THAT(readNames(watch), IsEmpty());
    store_.check(a);
    put("/b");
    store_.check(a);
    store_.remove(a);
    EXPECT_THAT(readNames(watch), ElementsAre("put/b", "removed"));
}

TEST_F(TheWatch, DoesNotLoseAnEntryThatIsCheckedWhileTheListIsSent) {
    std::vector<std::string> uuids;
    for (int i = 0; i < 500; ++i) {
        uuids.push_back(put("/" + std::to_string(i)));
    }
    Watch watch(store_, "");
    auto events = parse(watch.next(store_, 0));
    std::for_each(uuids.begin(), uuids.end(), [this](const auto& uuid) { store_.check(uuid); });
    const auto rest = read(watch);
    events.insert(events.end(), rest.begin(), rest.end());
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](const Event& event) { return event.name == "put"; }),
              500);
}

TEST_F(TheWatch, ResumesAfterTheEventThatTheReaderKnows) {
    put("/a");
    const std::string b = put("/b");
    Watch first(store_, "");
    const std::string id = read(first).back().id;
    put("/c");
    store_.remove(b);
    Watch second(store_, id);
    EXPECT_THAT(readNames(second), ElementsAre("put/c", "removed", "listed"));
    Watch third(store_, read(first).back().id);
    EXPECT_THAT(readNames(third), ElementsAre("listed"));
}

TEST_F(TheWatch, SendsTheListAgainAfterAnUnknownId) {
    put("/a");
    Watch first(store_, "");
    const std::string id = read(first).back().id;
    const EntryStore other;
    for (const std::string& unknown :
         {std::string("x"), std::string("1"), id + "0", id + "x", '0' + id, other.instance() + "-1",
          store_.instance(), store_.instance() + '-', store_.instance() + "--1",
          store_.instance() + "-99999999999999999999"}) {
        Watch watch(store_, unknown);
        EXPECT_THAT(readNames(watch), ElementsAre("list", "put/a", "listed")) << unknown;
    }
}

TEST_F(TheWatch, SendsTheListAgainToAReaderThatMissedTooManyRemovals) {
    put("/a");
    Watch first(store_, "");
    const std::string id = read(first).back().id;
    for (std::size_t i = 0; i < EntryStore::kMaxRemovals; ++i) {
        store_.remove(put("/b"));
    }
    Watch knowing(store_, id);
    EXPECT_EQ(read(knowing).size(), EntryStore::kMaxRemovals + 1);
    store_.remove(put("/b"));
    Watch resumed(store_, id);
    EXPECT_THAT(readNames(resumed), ElementsAre("list", "put/a", "listed"));
    EXPECT_THAT(readNames(first), ElementsAre("list", "put/a", "listed"));
}

TEST_F(TheWatch, SendsAStateEveryTwoSecondsAndWhenTheFaultsChange) {
    Watch watch(store_, "");
    EXPECT_THAT(watch.next(store_, 0), StartsWith("event: state\ndata: {\"faults\":0"));
    now_ += 1'999ms;
    EXPECT_EQ(watch.next(store_, 0), "");
    now_ += 1ms;
    EXPECT_EQ(watch.next(store_, 0), "event: state\ndata: {\"faults\":0,\"ttl\":null}\n\n");
    EXPECT_EQ(watch.next(store_, 3), "event: state\ndata: {\"faults\":3,\"ttl\":null}\n\n");
    EXPECT_EQ(watch.next(store_, 3), "");
}

TEST_F(TheWatch, KeepsItsPiecesShortWhateverIsPut) {
    const std::string ugly(1'000, '\x01');
    const std::string wild(8'000, '\xff');
    for (int i = 0; i < 60; ++i) {
        put("/" + std::to_string(i) + (i % 3 == 0 ? wild : ""),
            {{"name", i % 2 == 0 ? ugly : std::string(3'000, 'x')},
             {"host", ugly},
             {"uri", std::string(299'999, 'x')},
             {"port", 1.5}});
    }
    for (int i = 0; i < 300; ++i) {
        store_.check(put("/" + std::to_string(i), {{"name", std::string(5'900, 'x')}}));
        put("/" + std::to_string(i) + "/" + std::string(700, '\xff'),
            {{"host", std::string(500, '\x01')}});
    }
    Watch watch(store_, "");
    std::size_t longest = 0;
    std::size_t count = 0;
    for (std::string piece = watch.next(store_, 0); !piece.empty();
         piece = watch.next(store_, 0), ++count) {
        EXPECT_LT(piece.size(), Watch::kPiece + Watch::kLongestEvent);
        for (std::size_t begin = 0; begin < piece.size();) {
            const auto end = piece.find("\n\n", begin) + 2;
            longest = std::max(longest, end - begin);
            begin = end;
        }
    }
    EXPECT_LE(longest, Watch::kLongestEvent);
    EXPECT_GT(longest, kLongestShownWhole / 2);
    EXPECT_GT(count, 10U);
}

TEST_F(TheWatch, SendsASummaryOfALongService) {
    std::string name(199, 'x');
    name += "€" + std::string(10'000, 'x');
    put("/a", {{"name", name}, {"uri", {1}}, {"port", 80}, {"host", "10.0.0.1"}, {"more", 1}});
    Watch watch(store_, "");
    const json entry = read(watch).at(1).data;
    EXPECT_EQ(entry.at("service"),
              json({{"name", std::string(199, 'x') + "…"}, {"port", 80}, {"host", "10.0.0.1"}}));
    EXPECT_EQ(entry.at("cut"), store_.entries().front().service.size());
    put("/a", {{"name", "lamp"}, {"more", name}});
    EXPECT_EQ(read(watch).at(0).data.at("service"), json({{"name", "lamp"}}));
    put("/a", {{"name", "lamp"}});
    EXPECT_EQ(read(watch).at(0).data.at("service"), json({{"name", "lamp"}}));
}

TEST_F(TheWatch, ParsesALongServiceOnceForEachPut) {
    const json service{{"name", "lamp"}, {"more", std::vector<json>(100'000, json::array())}};
    const double forThePut = processorSeconds([&] { put("/a", service); });
    const double forTheReaders = processorSeconds([&] {
        for (int i = 0; i < 20; ++i) {
            Watch watch(store_, "");
            EXPECT_EQ(read(watch).at(1).data.at("service"), json({{"name", "lamp"}}));
        }
    });
    EXPECT_LT(forTheReaders, 5 * forThePut);  // about 20 times, if each reader parsed the service
}

TEST_F(TheWatch, SendsAChangeWhoseSizeDoesNotDependOnTheNumberOfEntries) {
    Watch watch(store_, "");
    std::vector<std::size_t> sizes;
    for (const int count : {10, 1'000, 20'000}) {
        for (int i = 0; i < count; ++i) {
            put("/" + std::to_string(i), {{"port", 1}});
        }
        read(watch);
        now_ += Watch::kHeartbeat;
        watch.next(store_, 0);
        put("/7", {{"port", 1}});
        const std::string piece = watch.next(store_, 0);
        sizes.push_back(piece.substr(piece.find("data: ")).size());
    }
    EXPECT_THAT(sizes, Each(::testing::Le(sizes[0] + 4)));  // the age may have more digits
}

class TheRecentPieces : public TheWatch {
  protected:
    Watch reader(bool hasChecks = true) {
        Watch watch(store_, "", hasChecks);
        while (!watch.next(store_, 0).empty()) {
        }
        return watch;
    }

    RecentPieces pieces_;
};

TEST_F(TheRecentPieces, AreMadeOnceForAllReadersInTheSamePosition) {
    const std::string a = put("/a");
    Watch one = reader();
    Watch other = one;
    put("/b");
    store_.check(a);
    const auto piece = pieces_.next(one, store_, 0);
    EXPECT_THAT(*piece, ::testing::HasSubstr("event: checked\n"));
    EXPECT_EQ(pieces_.next(other, store_, 0), piece);
    EXPECT_EQ(*pieces_.next(other, store_, 0), "");
}

TEST_F(TheRecentPieces, AreDifferentForReadersInDifferentPositions) {
    const std::string a = put("/a");
    Watch early = reader();
    put("/b");
    Watch late = reader();
    Watch withoutChecks = reader(false);
    store_.check(a);
    put("/c");
    const auto piece = pieces_.next(early, store_, 0);
    EXPECT_THAT(parse(*piece), ::testing::SizeIs(3));
    EXPECT_THAT(parse(*pieces_.next(late, store_, 0)), ::testing::SizeIs(2));
    EXPECT_THAT(parse(*pieces_.next(withoutChecks, store_, 0)), ::testing::SizeIs(1));
}

TEST_F(TheRecentPieces, AreMadeAgainAfterAChange) {
    const std::string a = put("/a");
    Watch one = reader();
    Watch other = one;
    Watch third = one;
    put("/b");
    EXPECT_THAT(parse(*pieces_.next(one, store_, 0)), ::testing::SizeIs(1));
    store_.check(a);
    EXPECT_THAT(parse(*pieces_.next(other, store_, 0)), ::testing::SizeIs(2));
    EXPECT_THAT(*pieces_.next(third, store_, 7), StartsWith("event: state\ndata: {\"faults\":7"));
}

TEST_F(TheRecentPieces, AreSharedDespiteChecksByReadersWithoutChecks) {
    const std::string a = put("/a");
    Watch one = reader(false);
    Watch other = one;
    put("/b");
    const auto piece = pieces_.next(one, store_, 0);
    store_.check(a);
    EXPECT_EQ(pieces_.next(other, store_, 0), piece);
}

TEST_F(TheRecentPieces, AreMadeAgainWhenTheirTimesAreTooOld) {
    Watch one = reader();
    Watch other = one;
    Watch third = one;
    put("/a");
    const auto piece = pieces_.next(one, store_, 0);
    now_ += RecentPieces::kLifetime;
    EXPECT_EQ(pieces_.next(other, store_, 0), piece);
    now_ += 1ms;
    EXPECT_EQ(parse(*pieces_.next(third, store_, 0)).at(0).data.at("renewed"), 51);
}

/// A reader that builds the list from the events, and remembers the last id.
class Reader {
  public:
    /// Reads some events of a piece, as if the connection had ended after them.
    void take(const std::string& piece, std::size_t most) {
        for (const Event& event : parse(piece)) {
            if (most-- == 0) {
                return;
            }
            apply(event);
            id = event.id.empty() ? id : event.id;
        }
    }

    /// Sets the counts of checks, for a reader that gets no checks.
    void forgetChecks(const std::map<std::string, json>& known) {
        for (const auto& [uuid, entry] : known) {
            if (const auto own = entries.find(uuid); own != entries.end()) {
                own->second[2] = entry[2];
            }
        }
    }

    std::string id;
    std::map<std::string, json> entries;  // by uuid

  private:
    void apply(const Event& event) {
        if (event.name == "list") {
            entries.clear();
        } else if (event.name == "put") {
            entries[event.data.at("uuid")] = {event.data.at("path"), event.data.at("service"),
                                              event.data.at("checks")};
        } else if (event.name == "removed") {
            entries.erase(event.data.at("uuid").get<std::string>());
        } else if (event.name == "checked") {
            for (const json& check : event.data) {
                ASSERT_EQ(entries.count(check[0]), 1U);
                entries[check[0]][2] = check[1];
            }
        }
    }
};

TEST_F(TheWatch, GivesEveryReaderTheEntriesOfTheStoreWhereverItsConnectionsAreCut) {
    std::minstd_rand random(1);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    for (int round = 0; round < 20; ++round) {
        std::vector<Reader> readers(3);
        std::vector<Watch> watches(2, Watch(store_, ""));
        watches.emplace_back(store_, "", false);
        RecentPieces pieces;
        for (int step = 0; step < 300; ++step) {
            for (std::size_t changes = below(30); changes > 0; --changes) {
                const std::string path = '/' + std::to_string(below(200));
                const std::string uuid = put(path, {{"a", std::string(below(300), 'x')}});
                const auto kind = below(6);
                kind == 0 ? static_cast<void>(store_.remove(uuid))
                          : static_cast<void>(kind < 3 && store_.check(uuid));
            }
            if (below(100) == 0) {
                store_.clear();
            }
            const auto which = below(3);
            const std::string piece = *pieces.next(watches[which], store_, 0);
            const bool isCut = below(4) == 0;
            readers[which].take(piece, isCut ? below(20) : piece.size());
            if (isCut) {
                watches[which] = Watch(store_, readers[which].id, which < 2);
            }
        }
        std::map<std::string, json> expected;
        for (const Entry& entry : store_.entries()) {
            expected[entry.uuid] = {entry.path, json::parse(entry.service), entry.checks};
        }
        for (std::size_t i = 0; i < readers.size(); ++i) {
            for (auto piece = pieces.next(watches[i], store_, 0); !piece->empty();
                 piece = pieces.next(watches[i], store_, 0)) {
                readers[i].take(*piece, piece->size());
            }
            readers[i].forgetChecks(i == 2 ? expected : std::map<std::string, json>());
            ASSERT_EQ(readers[i].entries, expected);
        }
    }
}

}  // namespace
}  // namespace orvx::registry
