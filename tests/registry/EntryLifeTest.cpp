// Tests the number of entries and their time to live, with a clock that the test sets.
// Everything runs on the test's thread.
// There is no lock.

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "AwakeClock.h"
#include "EntryStore.h"

namespace orvx::registry {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AnEntryThatIsNotRenewed : public ::testing::Test {
  protected:
    std::vector<std::string> pathsAfter(std::chrono::milliseconds time) {
        now_ += time;
        store_.expire();
        std::vector<std::string> paths;
        for (const Entry& entry : store_.entries()) {
            paths.push_back(entry.path);
        }
        return paths;
    }

    std::string put(const std::string& path) { return store_.put(path, {}).entry.uuid; }

    EntryStore::Time now_{};
    EntryStore store_{{10s, 100, "", [this] { return now_; }}};
};

TEST_F(AnEntryThatIsNotRenewed, ExpiresWhenItsTimeIsOver) {
    put("/a");
    EXPECT_THAT(pathsAfter(9'999ms), ElementsAre("/a"));
    EXPECT_THAT(pathsAfter(1ms), IsEmpty());
}

TEST_F(AnEntryThatIsNotRenewed, ExpiresAlthoughOthersAreRenewed) {
    const std::string checked = put("/checked");
    put("/put");
    put("/idle");
    EXPECT_THAT(pathsAfter(8s), ElementsAre("/checked", "/put", "/idle"));
    store_.check(checked);
    EXPECT_FALSE(store_.put("/put", {}).created);
    EXPECT_THAT(pathsAfter(9s), ElementsAre("/checked", "/put"));
    EXPECT_THAT(pathsAfter(1s), IsEmpty());
}

TEST_F(AnEntryThatIsNotRenewed, IsNotRenewedByALookup) {
    const std::string uuid = put("/a");
    now_ += 9s;
    store_.find(uuid);
    EXPECT_THAT(pathsAfter(1s), IsEmpty());
    EXPECT_FALSE(store_.check(uuid));
    EXPECT_TRUE(store_.put("/a", {}).created);
}

class AnEntryInAStoppedProcess : public ::testing::Test {
  protected:
    bool livesAfter(std::chrono::milliseconds time) {
        now_ += time;
        store_.expire();
        return !store_.entries().empty();
    }

    EntryStore::Time now_{};
    EntryStore store_{{10s, 100, "", AwakeClock(1s, [this] { return now_; })}};
};

TEST_F(AnEntryInAStoppedProcess, ExpiresAfterItsTimeToLiveOfAwakeTime) {
    store_.put("/a", {});
    EXPECT_TRUE(livesAfter(1h));  // counts as one second
    for (int i = 0; i < 17; ++i) {
        EXPECT_TRUE(livesAfter(500ms));
    }
    EXPECT_FALSE(livesAfter(500ms));
}

TEST_F(AnEntryInAStoppedProcess, IsRenewedByACheckThatArrivedMeanwhile) {
    const std::string uuid = store_.put("/a", {}).entry.uuid;
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(livesAfter(1h));
        EXPECT_TRUE(store_.check(uuid));
    }
}

TEST(AnEntryWithoutATimeToLive, NeverExpires) {
    EntryStore::Time now{};
    EntryStore store({0s, 100, "", [&now] { return now; }});
    store.put("/a", {});
    now += std::chrono::hours(100'000);
    store.expire();
    EXPECT_EQ(store.entries().size(), 1U);
}

TEST(TheEntryStore, RefusesAnEntryBeyondItsLimitButReplacesExistingOnes) {
    StoreOptions options;
    options.maxEntries = 2;
    EntryStore store(options);
    const std::string uuid = store.put("/a", {}).entry.uuid;
    store.put("/b", {});
    EXPECT_THROW(store.put("/c", {}), StoreFull);
    EXPECT_FALSE(store.put("/a", {{"port", 1}}).created);
    store.remove(uuid);
    EXPECT_TRUE(store.put("/c", {}).created);
    EXPECT_EQ(store.entries().size(), 2U);
}

TEST(TheEntryStore, IsEmptyAfterItWasCleared) {
    EntryStore store;
    const std::string uuid = store.put("/a", {}).entry.uuid;
    store.clear();
    EXPECT_TRUE(store.entries().empty());
    EXPECT_EQ(store.find(uuid), nullptr);
    EXPECT_TRUE(store.put("/a", {}).created);
}

}  // namespace
}  // namespace orvx::registry
