#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace orvx::registry::sqlite {

/// An error that SQLite reports.
class Error : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// One prepared SQL statement, to be run once. Its database must outlive it.
class Statement {
  public:
    Statement(sqlite3* database, std::string_view sql);

    /// Parameters are numbered from 1. A bound view is not copied: it must be valid until the
    /// statement has run.
    Statement& bind(int parameter, std::string_view text);
    Statement& bindBytes(int parameter, std::string_view bytes);
    Statement& bind(int parameter, std::int64_t number);

    /// Runs the statement up to its next row. Returns whether there is one. Throws an Error.
    bool step();

    /// The value of a column of the row, as text or bytes. Columns are numbered from 0.
    std::string text(int column) const;
    std::int64_t number(int column) const;

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };

    void require(int result) const;

    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

/// An open database file.
///
/// Thread-safety: none.
class Database {
  public:
    /// Creates the file if it does not exist.
    explicit Database(const std::string& path);

    Statement prepare(std::string_view sql) { return {database_.get(), sql}; }
    /// Runs a statement without parameters, and ignores its rows.
    void run(std::string_view sql) { prepare(sql).step(); }

  private:
    struct Close {
        void operator()(sqlite3* database) const;
    };

    std::unique_ptr<sqlite3, Close> database_;
};

/// Its changes take effect together with commit(); without commit() the destructor reverts them.
class Transaction {
  public:
    explicit Transaction(Database& database);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit();

  private:
    Database& database_;
    bool isOpen_ = true;
};

}  // namespace orvx::registry::sqlite
