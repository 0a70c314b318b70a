#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace orvx::registry::sqlite {

/// What SQLite says went wrong.
class Error : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// One SQL statement, ready to run once. Ends before its database does.
class Statement {
  public:
    Statement(sqlite3* database, std::string_view sql);

    /// For the parameter of that number, from 1. What is bound as a view is not copied: it must
    /// last.
    Statement& bind(int parameter, std::string_view text);
    Statement& bindBytes(int parameter, std::string_view bytes);
    Statement& bind(int parameter, std::int64_t number);

    /// True: there is a (further) row. Throws an Error.
    bool step();

    /// Of the row; text and bytes alike. From 0.
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
    /// Creates a file that does not exist.
    explicit Database(const std::string& path);

    Statement prepare(std::string_view sql) { return {database_.get(), sql}; }
    /// A statement without parameters whose rows, if any, do not matter.
    void run(std::string_view sql) { prepare(sql).step(); }

  private:
    struct Close {
        void operator()(sqlite3* database) const;
    };

    std::unique_ptr<sqlite3, Close> database_;
};

/// All changes or none: without commit() everything since its beginning is taken back.
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
