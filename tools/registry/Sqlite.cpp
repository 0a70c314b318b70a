// Wraps SQLite's C interface: handles have owners, errors are exceptions.
// Runs on the thread that owns the database.
// There is no lock.

#include "Sqlite.h"

#include <sqlite3.h>

namespace orvx::registry::sqlite {

namespace {

void require(sqlite3* database, int result) {
    if (result != SQLITE_OK) {
        throw Error(database ? sqlite3_errmsg(database) : sqlite3_errstr(result));
    }
}

}  // namespace

Statement::Statement(sqlite3* database, std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite::require(database, sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()),
                                                 &statement, nullptr));
    statement_.reset(statement);
}

void Statement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

void Statement::require(int result) const {
    sqlite::require(sqlite3_db_handle(statement_.get()), result);
}

Statement& Statement::bind(int parameter, std::string_view text) {
    require(sqlite3_bind_text64(statement_.get(), parameter, text.data(), text.size(), nullptr,
                                SQLITE_UTF8));
    return *this;
}

Statement& Statement::bindBytes(int parameter, std::string_view bytes) {
    require(sqlite3_bind_blob64(statement_.get(), parameter, bytes.data(), bytes.size(), nullptr));
    return *this;
}

Statement& Statement::bind(int parameter, std::int64_t number) {
    require(sqlite3_bind_int64(statement_.get(), parameter, number));
    return *this;
}

bool Statement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        require(result);
    }
    return result == SQLITE_ROW;
}

std::string Statement::text(int column) const {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return bytes ? std::string(bytes, static_cast<std::size_t>(size)) : std::string();
}

std::int64_t Statement::number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

Database::Database(const std::string& path) {
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &database,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    database_.reset(database);
    require(database, result);
}

void Database::Close::operator()(sqlite3* database) const {
    sqlite3_close(database);
}

Transaction::Transaction(Database& database) : database_(database) {
    database_.run("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    try {
        if (isOpen_) {
            database_.run("ROLLBACK");
        }
    } catch (const Error&) {
        // After some failures SQLite has already rolled back.
    }
}

void Transaction::commit() {
    database_.run("COMMIT");
    isOpen_ = false;
}

}  // namespace orvx::registry::sqlite
