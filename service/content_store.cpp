#include "content_store.h"

#include "filter_compiler.h"
#include "ordering.h"
#include "query_error.h"
#include "sort_compiler.h"

#include <tethrix/protocol/result_frame.h>

#include <sqlite3.h>

namespace tethrix::service {

namespace {

constexpr std::string_view contentScheme = "content://";

[[noreturn]] void throwTooLarge() {
    throw QueryError("result too large: more than " + std::to_string(protocol::maxResultFrameBytes) +
                     " bytes, ask for fewer rows");
}

/// Builds a Result's rows, checking a rough size of each row on the wire on
/// the way, to stop reading long before a result grows past what may be
/// sent (the exact size is known once the JSON is written).
class RowsSink {
public:
    explicit RowsSink(std::vector<std::vector<protocol::Value>>& rows) : rows(rows) {}

    void beginRow(std::size_t columns) {
        rows.emplace_back();
        rows.back().reserve(columns);
    }
    void integer(std::int64_t value) { add(value, 24); }
    void real(double value) { add(value, 24); }
    void boolean(bool value) { add(value, 24); }
    void text(std::string_view value) { add(std::string(value), value.size() + 3); }
    void endRow() {
        if (bytes > protocol::maxResultFrameBytes)
            throwTooLarge();
    }

private:
    template <typename T>
    void add(T value, std::size_t wireBytes) {
        bytes += wireBytes;
        rows.back().emplace_back(std::in_place_type<T>, std::move(value));
    }

    std::vector<std::vector<protocol::Value>>& rows;
    std::size_t bytes = 0;
};

/// Writes the rows straight into a result frame, whose size is exact.
class FrameSink {
public:
    explicit FrameSink(protocol::ResultFrameWriter& writer) : writer(writer) {}

    void beginRow(std::size_t) {}
    void integer(std::int64_t value) { writer.integer(value); }
    void real(double value) { writer.real(value); }
    void boolean(bool value) { writer.boolean(value); }
    void text(std::string_view value) { writer.text(value); }
    void endRow() {
        writer.endRow();
        if (writer.size() > protocol::maxResultFrameBytes)
            throwTooLarge();
    }

private:
    protocol::ResultFrameWriter& writer;
};

/// One read transaction around a query: its check of the data version and
/// its block then take SQLite's file lock once, not once each. Ends however
/// the query ends; an interrupted statement may have ended it already.
class ReadTransaction {
public:
    ReadTransaction(const SqliteDatabase& database, SqliteStatement& begin, SqliteStatement& commit)
        : database(database),
          commit(commit) {
        begin.reset();
        begin.step();
        begin.reset();
    }
    ~ReadTransaction() {
        if (sqlite3_get_autocommit(database.handle()))
            return;
        try {
            commit.reset();
            commit.step();
        } catch (const SqliteError&) {
            // Nothing was written; the next BEGIN finds the old one ended
            // or reports it.
        }
        commit.reset();
    }
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;

private:
    const SqliteDatabase& database;
    SqliteStatement& commit;
};

/// Resets a statement however its reading ends, so that no cached
/// statement holds a read transaction open between queries.
class ResetOnExit {
public:
    explicit ResetOnExit(SqliteStatement& statement) : statement(statement) {}
    ~ResetOnExit() { statement.reset(); }
    ResetOnExit(const ResetOnExit&) = delete;
    ResetOnExit& operator=(const ResetOnExit&) = delete;

private:
    SqliteStatement& statement;
};

}  // namespace

/// What stays the same from one block of a query to the next.
struct ContentStore::Plan {
    Plan(std::shared_ptr<const TableSchema> table, Projection projection, Ordering ordering)
        : table(std::move(table)),
          projection(std::move(projection)),
          ordering(std::move(ordering)) {
        // The key parts follow the projection, so that the last row of a
        // block tells where the next block starts.
        for (const auto* column : this->projection.columns) {
            select += select.empty() ? "SELECT " : ", ";
            select += quoteIdentifier(column->name);
        }
        if (this->ordering.isSeekable())
            select += ", " + this->ordering.keyColumns();
    }

    std::shared_ptr<const TableSchema> table;
    Projection projection;
    Ordering ordering;
    std::string select;
    /// The key of the row at cursorIndex: the last row of the latest full
    /// block served. Empty until one was.
    std::optional<OrderKey> cursor;
    std::uint64_t cursorIndex = 0;
    /// Size of the latest frame written.
    std::size_t frameBytes = 256;
};

ContentStore::ContentStore(const std::string& databasePath, std::string authority)
    : database(SqliteDatabase::openReadOnly(databasePath)),
      versionQuery(database.prepare("PRAGMA data_version")),
      beginRead(database.prepare("BEGIN")),
      commitRead(database.prepare("COMMIT")),
      authority(std::move(authority)),
      catalog(database),
      plans(planCapacity),
      statements(statementCapacity) {
    followDataChanges();
}

ContentStore::~ContentStore() = default;

void ContentStore::setInterruptCheck(std::function<bool()> check) {
    database.setInterruptCheck(std::move(check));
}

void ContentStore::dropCaches() {
    plans.clear();
    statements.clear();
    catalog.clear();
    indexes.clear();
    nullPresence.clear();
}

void ContentStore::followDataChanges() {
    std::int64_t version = 0;
    {
        ResetOnExit reset(versionQuery);
        versionQuery.step();
        version = versionQuery.integer(0);
    }
    if (version == dataVersion)
        return;
    dataVersion = version;
    dropCaches();
}

std::shared_ptr<const TableSchema> ContentStore::resolveTable(const std::string& uri) {
    if (uri.compare(0, contentScheme.size(), contentScheme) != 0) {
        throw QueryError("uri \"" + uri + "\" does not start with content://");
    }
    std::string rest = uri.substr(contentScheme.size());
    auto slash = rest.find('/');
    std::string uriAuthority = rest.substr(0, slash);
    if (!equalsIgnoringCase(uriAuthority, authority)) {
        throw QueryError("unknown authority \"" + uriAuthority + "\"");
    }
    std::string tableName = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
    if (tableName.empty())
        throw QueryError("uri \"" + uri + "\" names no table");
    auto table = catalog.findTable(tableName);
    if (!table)
        throw QueryError("unknown table \"" + tableName + "\"");
    return table;
}

ContentStore::Projection ContentStore::project(const std::vector<std::string>& names, const TableSchema& table) const {
    Projection projection;
    if (names.empty()) {
        for (const auto& column : table.columns) {
            projection.columns.push_back(&column);
            projection.resultColumns.push_back({column.name, column.type});
        }
        return projection;
    }
    for (const auto& name : names) {
        const TableColumn* column = table.findColumn(name);
        if (!column)
            throw QueryError("unknown column \"" + name + "\" in table \"" + table.name + "\"");
        projection.columns.push_back(column);
        // Spelt as asked: clients match result columns by name.
        projection.resultColumns.push_back({name, column->type});
    }
    return projection;
}

bool ContentStore::mayHoldNull(const TableSchema& table, const TableColumn& column) {
    if (column.notNull)
        return false;
    std::string key = table.name + '\n' + column.name;
    auto known = nullPresence.find(key);
    if (known != nullPresence.end())
        return known->second;
    auto statement = database.prepare("SELECT 1 FROM " + quoteIdentifier(table.name) + " WHERE " +
                                      quoteIdentifier(column.name) + " IS NULL LIMIT 1");
    bool present = statement.step();
    nullPresence.emplace(key, present);
    return present;
}

std::string queryShape(const protocol::Query& query) {
    std::string shape = query.uri;
    shape += '\0';
    for (const auto& column : query.columns) {
        shape += column;
        shape += '\1';
    }
    shape += '\0';
    shape += query.filter;
    shape += '\0';
    shape += query.sort;
    return shape;
}

ContentStore::Plan& ContentStore::planFor(const protocol::Query& query) {
    const std::string key = queryShape(query);
    if (Plan* known = plans.find(key))
        return *known;

    auto table = resolveTable(query.uri);
    Projection projection = project(query.columns, *table);
    CompiledFilter filter = compileFilter(query.filter, *table);
    auto keys = compileSort(query.sort, *table);
    Ordering ordering(table, std::move(filter), keys,
                      [&](const TableColumn& column) { return mayHoldNull(*table, column); });
    return plans.insert(key, std::make_unique<Plan>(table, std::move(projection), std::move(ordering)));
}

SqliteStatement& ContentStore::statementFor(const std::string& sql) {
    if (SqliteStatement* known = statements.find(sql))
        return *known;
    return statements.insert(sql, std::make_unique<SqliteStatement>(database.prepare(sql)));
}

ContentStore::Selection ContentStore::select(const protocol::Query& query) {
    followDataChanges();
    if (query.index < 0)
        throw QueryError("index must not be negative");
    if (query.count < 0)
        throw QueryError("count must not be negative");
    Selection selection;
    selection.plan = &planFor(query);
    selection.count = static_cast<std::uint64_t>(query.count);
    selection.first = static_cast<std::uint64_t>(query.index);
    const Plan& plan = *selection.plan;
    const std::uint64_t index = selection.first;

    OffsetIndex::Seek seek;
    seek.skip = index;
    if (plan.cursor && index > plan.cursorIndex && index - plan.cursorIndex <= OffsetIndex::spacing) {
        // The block after one served: from the key of its last row.
        seek.from = &*plan.cursor;
        seek.skip = index - plan.cursorIndex;
    } else if (plan.ordering.isSeekable() && index >= OffsetIndex::spacing) {
        seek = indexes.indexFor(plan.ordering).seek(index, database, plan.ordering);
    }
    if (seek.beyondEnd)
        return selection;

    std::vector<SqlValue> parameters;
    std::string sql = plan.select + plan.ordering.fromClause(seek.from, parameters) + " LIMIT ? OFFSET ?";
    parameters.emplace_back(query.count == 0 ? std::int64_t{-1} : std::int64_t{query.count});
    parameters.emplace_back(static_cast<std::int64_t>(seek.skip));
    selection.statement = &statementFor(sql);
    selection.statement->reset();
    selection.statement->bindAll(parameters);
    return selection;
}

template <typename Sink>
void ContentStore::readRows(const Selection& selection, Sink& sink) {
    if (!selection.statement)
        return;
    SqliteStatement& statement = *selection.statement;
    ResetOnExit reset(statement);
    Plan& plan = *selection.plan;
    const auto& columns = plan.projection.columns;
    const std::size_t columnCount = columns.size();
    std::uint64_t rows = 0;
    while (statement.step()) {
        sink.beginRow(columnCount);
        for (std::size_t c = 0; c < columnCount; ++c) {
            const int column = static_cast<int>(c);
            // SQL NULL reads as the type's zero value in every case.
            switch (columns[c]->type) {
            case protocol::ColumnType::integer:
                sink.integer(statement.integer(column));
                break;
            case protocol::ColumnType::real:
                sink.real(statement.real(column));
                break;
            case protocol::ColumnType::boolean:
                sink.boolean(statement.real(column) != 0.0);
                break;
            case protocol::ColumnType::text:
                sink.text(statement.text(column));
                break;
            }
        }
        sink.endRow();
        if (++rows == selection.count && plan.ordering.isSeekable()) {
            // The last row asked for: where the next block starts.
            OrderKey key;
            key.reserve(plan.ordering.keyPartCount());
            for (std::size_t i = 0; i < plan.ordering.keyPartCount(); ++i) {
                key.push_back(statement.value(static_cast<int>(columnCount + i)));
            }
            plan.cursor = std::move(key);
            plan.cursorIndex = selection.first + rows - 1;
        }
    }
}

protocol::Result ContentStore::execute(const protocol::Query& query) {
    try {
        ReadTransaction transaction(database, beginRead, commitRead);
        Selection selection = select(query);
        protocol::Result result;
        result.id = query.id;
        result.startIndex = static_cast<std::uint64_t>(query.index);
        result.columns = selection.plan->projection.resultColumns;
        RowsSink sink(result.rows);
        readRows(selection, sink);
        return result;
    } catch (const SqliteError& error) {
        if ((error.getCode() & 0xFF) == SQLITE_INTERRUPT)
            throw QueryInterrupted{};
        throw QueryError(std::string("database: ") + error.what());
    }
}

ContentStore::Frame ContentStore::executeFrame(const protocol::Query& query) {
    try {
        ReadTransaction transaction(database, beginRead, commitRead);
        Selection selection = select(query);
        // The block before is the best guess of this one's size; a little
        // more keeps a slightly larger block from a copy.
        Plan& plan = *selection.plan;
        protocol::ResultFrameWriter writer(query.id, static_cast<std::uint64_t>(query.index),
                                           plan.projection.resultColumns, plan.frameBytes + plan.frameBytes / 8);
        FrameSink sink(writer);
        readRows(selection, sink);
        plan.frameBytes = writer.size();
        Frame frame;
        frame.rows = writer.rowCount();
        frame.bytes = writer.take();
        return frame;
    } catch (const SqliteError& error) {
        if ((error.getCode() & 0xFF) == SQLITE_INTERRUPT)
            throw QueryInterrupted{};
        throw QueryError(std::string("database: ") + error.what());
    }
}

}  // namespace tethrix::service
