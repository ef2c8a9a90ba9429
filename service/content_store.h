// Answers content queries from an SQLite database: resolves the URI to a
// table, checks and compiles projection, filter and sort, and reads one
// block of rows, seeking deep blocks through an offset index.
//
// A list pages through the same query block after block, so what a query
// costs before its first row is kept for the next one: the compiled query
// (its plan) and its prepared statements. A plan also remembers the sort
// key of the last row it served, so that the block after it starts there
// (keyset paging) instead of at the nearest offset index entry.
//
// Not thread-safe: one thread owns a store (see QueryWorker).
#ifndef TETHRIX_SERVICE_CONTENT_STORE_H
#define TETHRIX_SERVICE_CONTENT_STORE_H

#include "lru_cache.h"
#include "offset_index.h"
#include "sqlite_database.h"
#include "table_schema.h"

#include <tethrix/protocol/messages.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tethrix::service {

constexpr const char* defaultAuthority = "com.tavelorix.content";

/// Equal for queries that differ at most in id, index and count: the same
/// content, columns, filter and sort, and so the same plan.
std::string queryShape(const protocol::Query& query);

class ContentStore {
public:
    /// Throws SqliteError if the file is missing or not a database.
    ContentStore(const std::string& databasePath, std::string authority);
    ~ContentStore();
    ContentStore(const ContentStore&) = delete;
    ContentStore& operator=(const ContentStore&) = delete;

    /// Throws QueryError for a query that cannot be answered, and
    /// QueryInterrupted when the interrupt check said so.
    protocol::Result execute(const protocol::Query& query);

    /// The answer as a binary result frame (result_frame.h), the rows
    /// written as they are read. Throws as execute does, and QueryError
    /// when the frame would grow past maxResultFrameBytes.
    struct Frame {
        std::string bytes;
        std::size_t rows = 0;
    };
    Frame executeFrame(const protocol::Query& query);

    /// Asked while a statement runs; true stops it.
    void setInterruptCheck(std::function<bool()> check);

    /// Forgets schemas, plans, statements and offset indexes, as after a
    /// change of the data.
    void dropCaches();
    const OffsetIndexCache& offsetIndexes() const { return indexes; }

    /// Compiled queries and prepared statements kept, each; the least
    /// recently used goes first.
    static constexpr std::size_t planCapacity = 32;
    static constexpr std::size_t statementCapacity = 32;

private:
    struct Projection {
        std::vector<const TableColumn*> columns;
        std::vector<protocol::Column> resultColumns;
    };
    struct Plan;
    /// A query ready to step: its plan and its statement, bound.
    struct Selection {
        Plan* plan = nullptr;
        SqliteStatement* statement = nullptr;  ///< null: no row at the index
        std::uint64_t first = 0;               ///< index of the first row
        std::uint64_t count = 0;               ///< rows wanted; 0: all
    };

    void followDataChanges();
    std::shared_ptr<const TableSchema> resolveTable(const std::string& uri);
    Projection project(const std::vector<std::string>& names, const TableSchema& table) const;
    bool mayHoldNull(const TableSchema& table, const TableColumn& column);
    Plan& planFor(const protocol::Query& query);
    SqliteStatement& statementFor(const std::string& sql);
    Selection select(const protocol::Query& query);
    template <typename Sink>
    void readRows(const Selection& selection, Sink& sink);

    SqliteDatabase database;
    SqliteStatement versionQuery;
    SqliteStatement beginRead;
    SqliteStatement commitRead;
    std::string authority;
    SchemaCatalog catalog;
    OffsetIndexCache indexes;
    std::map<std::string, bool> nullPresence;  ///< by table and column
    LruCache<Plan> plans;
    LruCache<SqliteStatement> statements;
    std::int64_t dataVersion = 0;
};

/// Thrown by ContentStore::execute when the interrupt check stopped a query.
struct QueryInterrupted {};

}  // namespace tethrix::service

#endif
