// Answers content queries from an SQLite database: resolves the URI to a
// table, checks and compiles projection, filter and sort, and reads one
// block of rows, seeking deep blocks through an offset index.
//
// Not thread-safe: one thread owns a store (see QueryWorker).
#ifndef TETHRIX_SERVICE_CONTENT_STORE_H
#define TETHRIX_SERVICE_CONTENT_STORE_H

#include "offset_index.h"
#include "sqlite_database.h"
#include "table_schema.h"

#include <tethrix/protocol/messages.h>

#include <functional>
#include <map>
#include <string>

namespace tethrix::service {

constexpr const char* defaultAuthority = "com.tavelorix.content";

class ContentStore {
public:
    /// Throws SqliteError if the file is missing or not a database.
    ContentStore(const std::string& databasePath, std::string authority);

    /// Throws QueryError for a query that cannot be answered, and
    /// QueryInterrupted when the interrupt check said so.
    protocol::Result execute(const protocol::Query& query);

    /// Asked while a statement runs; true stops it.
    void setInterruptCheck(std::function<bool()> check);

    /// Forgets schemas and offset indexes, as after a change of the data.
    void dropCaches();
    const OffsetIndexCache& offsetIndexes() const { return indexes; }

private:
    struct Projection {
        std::vector<const TableColumn*> columns;
        std::vector<protocol::Column> resultColumns;
    };

    void followDataChanges();
    std::shared_ptr<const TableSchema> resolveTable(const std::string& uri);
    Projection project(const std::vector<std::string>& names, const TableSchema& table) const;
    bool mayHoldNull(const TableSchema& table, const TableColumn& column);
    std::vector<std::vector<protocol::Value>> readRows(SqliteStatement& statement, const Projection& projection) const;

    SqliteDatabase database;
    std::string authority;
    SchemaCatalog catalog;
    OffsetIndexCache indexes;
    std::map<std::string, bool> nullPresence;  ///< by table and column
    std::int64_t dataVersion = 0;
};

/// Thrown by ContentStore::execute when the interrupt check stopped a query.
struct QueryInterrupted {};

}  // namespace tethrix::service

#endif
