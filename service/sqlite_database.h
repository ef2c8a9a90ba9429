// Thin ownership wrappers around the SQLite C interface. Failures throw
// SqliteError with SQLite's own message.
#ifndef TETHRIX_SERVICE_SQLITE_DATABASE_H
#define TETHRIX_SERVICE_SQLITE_DATABASE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace tethrix::service {

class SqliteError : public std::runtime_error {
public:
    SqliteError(const std::string& message, int code) : std::runtime_error(message), code(code) {}
    int getCode() const { return code; }

private:
    int code;
};

/// Bytes of a BLOB, kept apart from text so that a value bound back into a
/// statement keeps its storage class.
struct Blob {
    std::string bytes;
    bool operator==(const Blob& other) const { return bytes == other.bytes; }
};

/// A value as SQLite stores it: NULL, INTEGER, REAL, TEXT or BLOB.
using SqlValue = std::variant<std::monostate, std::int64_t, double, std::string, Blob>;

class SqliteStatement;

/// How long a statement waits for a lock that another connection holds
/// before it fails with SQLITE_BUSY.
constexpr std::chrono::milliseconds busyTimeout{2000};

class SqliteDatabase {
public:
    /// Opens an existing database read-only and makes sure it is one.
    static SqliteDatabase openReadOnly(const std::string& path);
    /// Opens or creates a database for reading and writing (tests, tools).
    static SqliteDatabase openReadWrite(const std::string& path);

    SqliteStatement prepare(std::string_view sql) const;
    /// Runs statements without results, e.g. a script of CREATE and INSERT.
    void execute(const std::string& sql) const;
    /// Increases whenever another connection commits a change.
    std::int64_t dataVersion() const;

    /// Calls `check` every few thousand steps of any statement; a true
    /// answer interrupts the statement with SqliteError code SQLITE_INTERRUPT.
    /// An empty function removes the check.
    void setInterruptCheck(std::function<bool()> check);

    sqlite3* handle() const { return db.get(); }

private:
    struct Closer {
        void operator()(sqlite3* db) const;
    };
    explicit SqliteDatabase(sqlite3* db) : db(db) {}
    static SqliteDatabase open(const std::string& path, int flags);

    std::unique_ptr<sqlite3, Closer> db;
    /// On the heap: SQLite keeps its address, which must survive a move.
    std::unique_ptr<std::function<bool()>> interruptCheck;
};

class SqliteStatement {
public:
    /// Binds `values` to the parameters 1, 2, ... in order.
    void bindAll(const std::vector<SqlValue>& values);
    void bind(int index, const SqlValue& value);
    /// Advances to the next row; false at the end.
    bool step();
    void reset();

    int columnCount() const;
    bool isNull(int column) const;
    std::int64_t integer(int column) const;
    double real(int column) const;
    std::string_view text(int column) const;
    SqlValue value(int column) const;

private:
    friend class SqliteDatabase;
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const;
    };
    SqliteStatement(sqlite3* db, sqlite3_stmt* statement) : db(db), statement(statement) {}

    sqlite3* db;
    std::unique_ptr<sqlite3_stmt, Finalizer> statement;
};

/// `name` as an SQL identifier: in double quotes, inner quotes doubled.
std::string quoteIdentifier(std::string_view name);

}  // namespace tethrix::service

#endif
