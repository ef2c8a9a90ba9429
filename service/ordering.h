// The rows a query runs over, in the order they are served: one table, one
// filter, the sort keys and a unique tie-breaker. Equal sort keys are
// ordered by the tie-breaker, so that consecutive blocks of the same query
// neither overlap nor skip a row.
#ifndef TETHRIX_SERVICE_ORDERING_H
#define TETHRIX_SERVICE_ORDERING_H

#include "filter_compiler.h"
#include "sort_compiler.h"
#include "sqlite_database.h"
#include "table_schema.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tethrix::service {

/// Values of every key part of one row, in key order: a position in the
/// ordering that a query can seek to.
using OrderKey = std::vector<SqlValue>;

class Ordering {
public:
    /// `mayHoldNull` tells whether a column can hold NULL at all; it lets
    /// seeks on NOT NULL data stay simple ranges that an index serves.
    Ordering(std::shared_ptr<const TableSchema> table, CompiledFilter filter, const std::vector<SortKey>& keys,
             const std::function<bool(const TableColumn&)>& mayHoldNull);

    const TableSchema& table() const { return *tableSchema; }

    /// Whether a unique tie-breaker exists, so that a key names exactly one
    /// place in the ordering and seeks are possible.
    bool isSeekable() const { return seekable; }

    /// " FROM t WHERE ... ORDER BY ...": the filter, and from `from` on if
    /// given. Appends the parameters in their order.
    std::string fromClause(const OrderKey* from, std::vector<SqlValue>& parameters) const;
    /// The key parts as a select list, for reading OrderKeys.
    std::string keyColumns() const;
    std::size_t keyPartCount() const { return parts.size(); }

    /// Equal for two queries over the same rows in the same order.
    const std::string& identity() const { return cacheKey; }

private:
    struct KeyPart {
        std::string sql;
        bool descending = false;
        bool nullable = false;
    };

    std::string seekCondition(const OrderKey& from, std::vector<SqlValue>& parameters) const;
    std::string equalTo(const KeyPart& part, const SqlValue& value, std::vector<SqlValue>& parameters) const;
    std::string strictlyAfter(const KeyPart& part, const SqlValue& value, std::vector<SqlValue>& parameters) const;
    std::string atOrAfter(const KeyPart& part, const SqlValue& value, std::vector<SqlValue>& parameters) const;

    std::shared_ptr<const TableSchema> tableSchema;
    CompiledFilter filter;
    std::vector<KeyPart> parts;
    bool seekable = false;
    std::string orderBy;
    std::string cacheKey;
};

}  // namespace tethrix::service

#endif
