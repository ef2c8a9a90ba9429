#include "sqlite_database.h"

#include <sqlite3.h>

namespace tethrix::service {

namespace {

[[noreturn]] void throwError(sqlite3* db, int code, const std::string& what) {
    std::string message = what + ": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(code));
    throw SqliteError(message, code);
}

}  // namespace

void SqliteDatabase::Closer::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

void SqliteStatement::Finalizer::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

SqliteDatabase SqliteDatabase::open(const std::string& path, int flags) {
    sqlite3* raw = nullptr;
    int code = sqlite3_open_v2(path.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    SqliteDatabase database(raw);
    if (code != SQLITE_OK)
        throwError(raw, code, "cannot open " + path);
    sqlite3_extended_result_codes(raw, 1);
    // Another program writing the database locks it for a moment; waiting
    // a little beats failing the query at once, and waiting for ever would
    // hold a query thread.
    sqlite3_busy_timeout(raw, static_cast<int>(busyTimeout.count()));
    return database;
}

SqliteDatabase SqliteDatabase::openReadOnly(const std::string& path) {
    SqliteDatabase database = open(path, SQLITE_OPEN_READONLY);
    // Opening is lazy; reading the schema is what finds a file that is not
    // a database.
    try {
        database.execute("SELECT count(*) FROM sqlite_schema");
    } catch (const SqliteError& error) {
        throw SqliteError("cannot open " + path + ": " + sqlite3_errmsg(database.handle()), error.getCode());
    }
    return database;
}

SqliteDatabase SqliteDatabase::openReadWrite(const std::string& path) {
    return open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
}

SqliteStatement SqliteDatabase::prepare(std::string_view sql) const {
    sqlite3_stmt* raw = nullptr;
    int code = sqlite3_prepare_v2(db.get(), sql.data(), static_cast<int>(sql.size()), &raw, nullptr);
    SqliteStatement statement(db.get(), raw);
    if (code != SQLITE_OK)
        throwError(db.get(), code, "cannot prepare statement");
    return statement;
}

void SqliteDatabase::execute(const std::string& sql) const {
    char* message = nullptr;
    int code = sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, &message);
    if (code == SQLITE_OK)
        return;
    std::string text = message ? message : sqlite3_errstr(code);
    sqlite3_free(message);
    throw SqliteError(text, code);
}

std::int64_t SqliteDatabase::dataVersion() const {
    SqliteStatement statement = prepare("PRAGMA data_version");
    statement.step();
    return statement.integer(0);
}

void SqliteDatabase::setInterruptCheck(std::function<bool()> check) {
    if (!check) {
        sqlite3_progress_handler(db.get(), 0, nullptr, nullptr);
        interruptCheck.reset();
        return;
    }
    interruptCheck = std::make_unique<std::function<bool()>>(std::move(check));
    auto trampoline = [](void* context) -> int { return (*static_cast<std::function<bool()>*>(context))() ? 1 : 0; };
    sqlite3_progress_handler(db.get(), 4000, trampoline, interruptCheck.get());
}

void SqliteStatement::bindAll(const std::vector<SqlValue>& values) {
    for (std::size_t i = 0; i < values.size(); ++i)
        bind(static_cast<int>(i + 1), values[i]);
}

void SqliteStatement::bind(int index, const SqlValue& value) {
    sqlite3_stmt* s = statement.get();
    int code = SQLITE_OK;
    if (std::holds_alternative<std::monostate>(value)) {
        code = sqlite3_bind_null(s, index);
    } else if (auto* i = std::get_if<std::int64_t>(&value)) {
        code = sqlite3_bind_int64(s, index, *i);
    } else if (auto* d = std::get_if<double>(&value)) {
        code = sqlite3_bind_double(s, index, *d);
    } else if (auto* t = std::get_if<std::string>(&value)) {
        code = sqlite3_bind_text64(s, index, t->data(), t->size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    } else {
        const auto& b = std::get<Blob>(value).bytes;
        code = sqlite3_bind_blob64(s, index, b.data(), b.size(), SQLITE_TRANSIENT);
    }
    if (code != SQLITE_OK)
        throwError(db, code, "cannot bind parameter " + std::to_string(index));
}

bool SqliteStatement::step() {
    int code = sqlite3_step(statement.get());
    if (code == SQLITE_ROW)
        return true;
    if (code == SQLITE_DONE)
        return false;
    throwError(db, code, "query failed");
}

void SqliteStatement::reset() {
    sqlite3_reset(statement.get());
}

int SqliteStatement::columnCount() const {
    return sqlite3_column_count(statement.get());
}

bool SqliteStatement::isNull(int column) const {
    return sqlite3_column_type(statement.get(), column) == SQLITE_NULL;
}

std::int64_t SqliteStatement::integer(int column) const {
    return sqlite3_column_int64(statement.get(), column);
}

double SqliteStatement::real(int column) const {
    return sqlite3_column_double(statement.get(), column);
}

std::string_view SqliteStatement::text(int column) const {
    auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), column));
    if (!data)
        return {};
    return std::string_view(data, static_cast<std::size_t>(sqlite3_column_bytes(statement.get(), column)));
}

SqlValue SqliteStatement::value(int column) const {
    sqlite3_stmt* s = statement.get();
    switch (sqlite3_column_type(s, column)) {
    case SQLITE_INTEGER:
        return sqlite3_column_int64(s, column);
    case SQLITE_FLOAT:
        return sqlite3_column_double(s, column);
    case SQLITE_TEXT:
        return std::string(text(column));
    case SQLITE_BLOB: {
        auto* data = static_cast<const char*>(sqlite3_column_blob(s, column));
        auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, column));
        return Blob{data ? std::string(data, size) : std::string()};
    }
    default:
        return std::monostate{};
    }
}

std::string quoteIdentifier(std::string_view name) {
    std::string quoted = "\"";
    for (char c : name) {
        if (c == '"')
            quoted += '"';
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

}  // namespace tethrix::service
