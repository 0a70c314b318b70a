// Tests a store with a file: which entries it restores when it is opened again, and which files it
// refuses. Everything runs on the test's thread.
// There is no lock.

#include "EntryFile.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <iterator>
#include <string>

#include "EntryStore.h"
#include "TemporaryFolder.h"

namespace orvx::registry {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;

class AStoreWithAFile : public ::testing::Test {
  protected:
    StoreOptions options() const {
        StoreOptions options;
        options.file = file_;
        return options;
    }

    void expectRefused(const std::string& why) const {
        EXPECT_THAT([this] { EntryStore{options()}; },
                    ThrowsMessage<FileError>(AllOf(HasSubstr(file_), HasSubstr(why))));
    }

    const TemporaryFolder folder_;
    const std::string file_ = folder_ / "entries";
};

TEST_F(AStoreWithAFile, ConvertsAFileOfAVersionWithoutOwners) {
    {
        EntryStore(options()).put("/a", {});
        sqlite::Database(file_).run("ALTER TABLE entries DROP COLUMN owner");
    }
    {
        EntryStore store(options());
        EXPECT_THAT(store.entries(), ElementsAre(Field(&Entry::owner, "")));
        store.put("/b", {}, {"lamps", 1, 1'000});
    }
    EntryStore store(options());
    EXPECT_THAT(store.entries(),
                ElementsAre(Field(&Entry::owner, ""), Field(&Entry::owner, "lamps")));
    EXPECT_THROW(store.put("/c", {}, {"lamps", 1, 1'000}), StoreFull);
}

TEST_F(AStoreWithAFile, RestoresItsEntriesInTheirOrder) {
    std::string uuid;
    std::chrono::system_clock::time_point created;
    {
        EntryStore store(options());
        const Entry& first = store.put("/c?\xff", {{"name", "Küche"}}).entry;
        uuid = first.uuid;
        created = first.created;
        store.put("/a", {});
        store.put("/b", {});
    }
    const EntryStore store(options());
    EXPECT_THAT(store.entries(), ElementsAre(Field(&Entry::path, "/c?\xff"),
                                             Field(&Entry::path, "/a"), Field(&Entry::path, "/b")));
    const Entry* entry = store.find(uuid);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->service, R"({"name":"Küche"})");
    EXPECT_LE(created - entry->created, std::chrono::seconds(1));
}

TEST_F(AStoreWithAFile, RestoresTheLastServiceOfAnEntryUnderItsUuid) {
    std::string uuid;
    {
        EntryStore store(options());
        uuid = store.put("/a", {{"port", 1}}).entry.uuid;
        store.put("/a", {{"port", 2}});
    }
    EntryStore store(options());
    EXPECT_EQ(store.find(uuid)->service, R"({"port":2})");
    EXPECT_FALSE(store.put("/a", {}).created);
}

TEST_F(AStoreWithAFile, DoesNotRestoreARemovedEntry) {
    {
        EntryStore store(options());
        store.remove(store.put("/a", {}).entry.uuid);
        store.put("/b", {});
    }
    EXPECT_THAT(EntryStore(options()).entries(), ElementsAre(Field(&Entry::path, "/b")));
}

TEST_F(AStoreWithAFile, DoesNotRestoreClearedEntries) {
    {
        EntryStore store(options());
        store.put("/a", {});
        store.clear();
    }
    EXPECT_THAT(EntryStore(options()).entries(), IsEmpty());
}

TEST_F(AStoreWithAFile, RestartsTheTimeToLiveOfEntriesAndDoesNotRestoreExpiredOnes) {
    EntryStore::Time now{};
    StoreOptions withTtl = options();
    withTtl.ttl = std::chrono::seconds(10);
    withTtl.clock = [&now] { return now; };
    EntryStore(withTtl).put("/a", {});
    now += std::chrono::seconds(60);
    {
        EntryStore store(withTtl);
        store.expire();
        EXPECT_EQ(store.entries().size(), 1U);
        now += std::chrono::seconds(10);
        store.expire();
        EXPECT_THAT(store.entries(), IsEmpty());
    }
    EXPECT_THAT(EntryStore(withTtl).entries(), IsEmpty());
}

TEST_F(AStoreWithAFile, RefusesAFileThatIsInUse) {
    const EntryStore store(options());
    expectRefused("locked");
}

TEST_F(AStoreWithAFile, RefusesAFileThatIsNotADatabase) {
    std::ofstream(file_) << "This is a text, and long enough to be taken for a database's header.";
    expectRefused("not a database");
}

TEST_F(AStoreWithAFile, RefusesADatabaseOfAnotherProgram) {
    sqlite::Database(file_).run("CREATE TABLE entries (name TEXT)");
    expectRefused("another program");
}

TEST_F(AStoreWithAFile, RefusesAPathWhoseFolderDoesNotExist) {
    EXPECT_THAT([this] { EntryFile{folder_ / "none/entries"}; },
                ThrowsMessage<FileError>(HasSubstr("unable to open")));
}

TEST_F(AStoreWithAFile, RefusesAnEntryThatIsNotJson) {
    EntryStore(options()).put("/a", {});
    sqlite::Database(file_).run("UPDATE entries SET service = '{'");
    expectRefused("an entry is damaged");
}

TEST_F(AStoreWithAFile, RefusesADamagedDatabase) {
    {
        EntryStore store(options());
        for (int i = 0; i < 200; ++i) {
            store.put("/" + std::to_string(i), {{"name", std::string(100, 'x')}});
        }
    }
    std::fstream file(file_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4'096);
    file << std::string(8'192, '\x5a');
    file.close();
    expectRefused("it is damaged");
}

TEST(ATransaction, RevertsChangesThatWereNotCommitted) {
    const TemporaryFolder folder;
    sqlite::Database database(folder / "file");
    database.run("CREATE TABLE numbers (number INTEGER)");
    {
        const sqlite::Transaction transaction(database);
        database.run("INSERT INTO numbers VALUES (1)");
    }
    EXPECT_FALSE(database.prepare("SELECT number FROM numbers").step());
}

}  // namespace
}  // namespace orvx::registry
