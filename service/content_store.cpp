#include "content_store.h"

#include "filter_compiler.h"
#include "ordering.h"
#include "query_error.h"
#include "sort_compiler.h"

#include <sqlite3.h>

namespace tethrix::service {

namespace {

constexpr std::string_view contentScheme = "content://";

/// A rough size of a row on the wire, to stop reading long before a result
/// grows past what may be sent.
std::size_t wireSize(const protocol::Value& value)
{
    if (auto* text = std::get_if<std::string>(&value)) return text->size() + 3;
    return 24;
}

[[noreturn]] void throwTooLarge()
{
    throw QueryError("result too large: more than " + std::to_string(protocol::maxResultFrameBytes) +
                     " bytes, ask for fewer rows");
}

protocol::Value cellValue(const SqliteStatement& statement, int column, protocol::ColumnType type)
{
    bool null = statement.isNull(column);
    switch (type) {
    case protocol::ColumnType::integer: return null ? std::int64_t{0} : statement.integer(column);
    case protocol::ColumnType::real: return null ? 0.0 : statement.real(column);
    case protocol::ColumnType::boolean: return null ? false : statement.real(column) != 0.0;
    case protocol::ColumnType::text: break;
    }
    return std::string(statement.text(column));
}

}  // namespace

ContentStore::ContentStore(const std::string& databasePath, std::string authority)
    : database(SqliteDatabase::openReadOnly(databasePath)), authority(std::move(authority)), catalog(database)
{
    dataVersion = database.dataVersion();
}

void ContentStore::setInterruptCheck(std::function<bool()> check)
{
    database.setInterruptCheck(std::move(check));
}

void ContentStore::dropCaches()
{
    catalog.clear();
    indexes.clear();
    nullPresence.clear();
}

void ContentStore::followDataChanges()
{
    std::int64_t version = database.dataVersion();
    if (version == dataVersion) return;
    dataVersion = version;
    dropCaches();
}

std::shared_ptr<const TableSchema> ContentStore::resolveTable(const std::string& uri)
{
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
    if (tableName.empty()) throw QueryError("uri \"" + uri + "\" names no table");
    auto table = catalog.findTable(tableName);
    if (!table) throw QueryError("unknown table \"" + tableName + "\"");
    return table;
}

ContentStore::Projection ContentStore::project(const std::vector<std::string>& names, const TableSchema& table) const
{
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
        if (!column) throw QueryError("unknown column \"" + name + "\" in table \"" + table.name + "\"");
        projection.columns.push_back(column);
        // Spelt as asked: clients match result columns by name.
        projection.resultColumns.push_back({name, column->type});
    }
    return projection;
}

bool ContentStore::mayHoldNull(const TableSchema& table, const TableColumn& column)
{
    if (column.notNull) return false;
    std::string key = table.name + '\n' + column.name;
    auto known = nullPresence.find(key);
    if (known != nullPresence.end()) return known->second;
    auto statement = database.prepare("SELECT 1 FROM " + quoteIdentifier(table.name) + " WHERE " +
                                      quoteIdentifier(column.name) + " IS NULL LIMIT 1");
    bool present = statement.step();
    nullPresence.emplace(key, present);
    return present;
}

std::vector<std::vector<protocol::Value>> ContentStore::readRows(SqliteStatement& statement,
                                                                 const Projection& projection) const
{
    std::vector<std::vector<protocol::Value>> rows;
    std::size_t bytes = 0;
    int columnCount = static_cast<int>(projection.columns.size());
    while (statement.step()) {
        std::vector<protocol::Value> row;
        row.reserve(projection.columns.size());
        for (int c = 0; c < columnCount; ++c) {
            row.push_back(cellValue(statement, c, projection.columns[static_cast<std::size_t>(c)]->type));
            bytes += wireSize(row.back());
        }
        if (bytes > protocol::maxResultFrameBytes) throwTooLarge();
        rows.push_back(std::move(row));
    }
    return rows;
}

protocol::Result ContentStore::execute(const protocol::Query& query)
{
    try {
        followDataChanges();
        if (query.index < 0) throw QueryError("index must not be negative");
        if (query.count < 0) throw QueryError("count must not be negative");
        auto table = resolveTable(query.uri);
        Projection projection = project(query.columns, *table);
        CompiledFilter filter = compileFilter(query.filter, *table);
        auto keys = compileSort(query.sort, *table);
        Ordering ordering(table, std::move(filter), keys,
                          [&](const TableColumn& column) { return mayHoldNull(*table, column); });

        protocol::Result result;
        result.id = query.id;
        result.startIndex = static_cast<std::uint64_t>(query.index);
        result.columns = projection.resultColumns;

        OffsetIndex::Seek seek;
        seek.skip = static_cast<std::uint64_t>(query.index);
        if (ordering.isSeekable() && seek.skip >= OffsetIndex::spacing) {
            seek = indexes.indexFor(ordering).seek(seek.skip, database, ordering);
        }
        if (seek.beyondEnd) return result;

        std::string select;
        for (const auto* column : projection.columns) {
            select += select.empty() ? "SELECT " : ", ";
            select += quoteIdentifier(column->name);
        }
        std::vector<SqlValue> parameters;
        std::string sql = select + ordering.fromClause(seek.from, parameters) + " LIMIT ? OFFSET ?";
        parameters.emplace_back(query.count == 0 ? std::int64_t{-1} : std::int64_t{query.count});
        parameters.emplace_back(static_cast<std::int64_t>(seek.skip));

        auto statement = database.prepare(sql);
        statement.bindAll(parameters);
        result.rows = readRows(statement, projection);
        return result;
    } catch (const SqliteError& error) {
        if ((error.getCode() & 0xFF) == SQLITE_INTERRUPT) throw QueryInterrupted{};
        throw QueryError(std::string("database: ") + error.what());
    }
}

}  // namespace tethrix::service
