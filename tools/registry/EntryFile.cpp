// One table of one SQLite database. With the write-ahead log a change is one append to a file, and
// survives a kill of the process. A power failure may lose the last changes. Runs on the thread
// that owns the entries.
// The only lock is SQLite's lock of the file, which excludes other processes.

#include "EntryFile.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace orvx::registry {

namespace {

constexpr std::int64_t kApplication = 0x4F525652;

/// Turns the errors of SQLite and of damaged entries into a FileError that names the file.
template <typename Action>
auto naming(const std::string& path, Action&& action) {
    try {
        return action();
    } catch (const sqlite::Error& error) {
        throw FileError("store " + path + ": " + error.what());
    } catch (const nlohmann::json::exception& error) {
        throw FileError("store " + path + ": an entry is damaged: " + error.what());
    }
}

std::int64_t numberOf(sqlite::Database& database, const char* sql) {
    sqlite::Statement statement = database.prepare(sql);
    return statement.step() ? statement.number(0) : 0;
}

bool isEmpty(sqlite::Database& database) {
    return numberOf(database, "SELECT count(*) FROM sqlite_master") == 0;
}

bool hasOwners(sqlite::Database& database) {
    return numberOf(database,
                    "SELECT count(*) FROM pragma_table_info('entries') WHERE name = 'owner'") == 1;
}

std::int64_t seconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

}  // namespace

EntryFile::EntryFile(const std::string& path)
    : path_(path), database_(naming(path, [&] { return sqlite::Database(path); })) {
    naming(path_, [this] {
        database_.run("PRAGMA locking_mode = EXCLUSIVE");
        requireOurs();
        database_.run("PRAGMA journal_mode = WAL");
        database_.run("PRAGMA synchronous = NORMAL");
        sqlite::Transaction creation(database_);  // locks the file as long as it is open
        if (isEmpty(database_)) {  // an existing store is not written: the disk may be full
            database_.run("PRAGMA application_id = " + std::to_string(kApplication));
            database_.run(
                "CREATE TABLE entries (position INTEGER PRIMARY KEY, uuid TEXT NOT NULL UNIQUE, "
                "path BLOB NOT NULL UNIQUE, service TEXT NOT NULL, created INTEGER NOT NULL, "
                "owner TEXT NOT NULL DEFAULT '')");
        } else if (!hasOwners(database_)) {  // a store of a version without tokens
            database_.run("ALTER TABLE entries ADD COLUMN owner TEXT NOT NULL DEFAULT ''");
        }
        creation.commit();
    });
}

void EntryFile::requireOurs() {
    const std::int64_t application = numberOf(database_, "PRAGMA application_id");
    if (application != kApplication && !(application == 0 && isEmpty(database_))) {
        throw sqlite::Error("it is a database of another program");
    }
    sqlite::Statement check = database_.prepare("PRAGMA quick_check(1)");
    if (check.step() && check.text(0) != "ok") {
        throw sqlite::Error("it is damaged");
    }
}

std::vector<Entry> EntryFile::load() {
    return naming(path_, [this] {
        std::vector<Entry> entries;
        sqlite::Statement rows = database_.prepare(
            "SELECT uuid, path, service, created, owner FROM entries ORDER BY position");
        while (rows.step()) {
            Entry entry;
            entry.uuid = rows.text(0);
            entry.path = rows.text(1);
            entry.service = rows.text(2);
            entry.address = addressOf(nlohmann::json::parse(entry.service));
            entry.owner = rows.text(4);
            entry.created =
                std::chrono::system_clock::time_point(std::chrono::seconds(rows.number(3)));
            entries.push_back(std::move(entry));
        }
        return entries;
    });
}

void EntryFile::add(const Entry& entry) {
    naming(path_, [&] {
        database_
            .prepare(
                "INSERT INTO entries (uuid, path, service, created, owner) "
                "VALUES (?, ?, ?, ?, ?)")
            .bind(1, entry.uuid)
            .bindBytes(2, entry.path)
            .bind(3, entry.service)
            .bind(4, seconds(entry.created))
            .bind(5, entry.owner)
            .step();
    });
}

void EntryFile::replace(const std::string& uuid, const std::string& service,
                        const std::string& owner) {
    naming(path_, [&] {
        database_.prepare("UPDATE entries SET service = ?, owner = ? WHERE uuid = ?")
            .bind(1, service)
            .bind(2, owner)
            .bind(3, uuid)
            .step();
    });
}

void EntryFile::remove(const std::vector<std::string>& uuids) {
    naming(path_, [&] {
        sqlite::Transaction transaction(database_);
        for (const std::string& uuid : uuids) {
            database_.prepare("DELETE FROM entries WHERE uuid = ?").bind(1, uuid).step();
        }
        transaction.commit();
    });
}

void EntryFile::clear() {
    naming(path_, [this] { database_.run("DELETE FROM entries"); });
}

}  // namespace orvx::registry
