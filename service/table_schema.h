// What the service knows of the tables of its database: their columns, the
// types clients see, and how rows are told apart for stable ordering.
#ifndef TETHRIX_SERVICE_TABLE_SCHEMA_H
#define TETHRIX_SERVICE_TABLE_SCHEMA_H

#include "sqlite_database.h"

#include <tethrix/protocol/messages.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tethrix::service {

/// SQLite's column affinity, which decides how it compares values.
enum class Affinity { integer, real, numeric, text, blob };

struct TableColumn {
    std::string name;  ///< as the table declares it
    std::string declaredType;
    protocol::ColumnType type = protocol::ColumnType::text;
    Affinity affinity = Affinity::blob;
    bool notNull = false;
};

struct TableSchema {
    std::string name;
    std::vector<TableColumn> columns;
    /// Expression naming a row's rowid, or empty for a table without one
    /// (WITHOUT ROWID, or every alias taken by a real column).
    std::string rowid;
    /// Columns of the primary key in key order; the tie-breaker of tables
    /// without rowid.
    std::vector<const TableColumn*> primaryKey;

    /// The column called `name`, ignoring ASCII case as SQLite does.
    const TableColumn* findColumn(std::string_view name) const;
};

/// The type a client sees for a declared column type.
protocol::ColumnType columnTypeFor(std::string_view declaredType);
/// SQLite's affinity rules for a declared column type.
Affinity affinityFor(std::string_view declaredType);

bool equalsIgnoringCase(std::string_view a, std::string_view b);

/// Reads table definitions on first use and keeps them until cleared.
class SchemaCatalog {
public:
    explicit SchemaCatalog(const SqliteDatabase& database) : database(database) {}

    /// Null if the database has no table of that name.
    std::shared_ptr<const TableSchema> findTable(std::string_view name);
    void clear() { tables.clear(); }

private:
    std::shared_ptr<const TableSchema> load(const std::string& name, bool withoutRowid);

    const SqliteDatabase& database;
    std::map<std::string, std::shared_ptr<const TableSchema>> tables;
};

}  // namespace tethrix::service

#endif
