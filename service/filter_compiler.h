// Turns a client's filter expression into an SQL condition with parameters.
// Received text never becomes SQL: columns are checked against the table
// and quoted from its own definition, and every value is a parameter.
#ifndef TETHRIX_SERVICE_FILTER_COMPILER_H
#define TETHRIX_SERVICE_FILTER_COMPILER_H

#include "sqlite_database.h"
#include "table_schema.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tethrix::service {

struct CompiledFilter {
    std::string sql;  ///< empty for an empty filter: every row
    std::vector<SqlValue> parameters;
};

/// Limits that keep hostile filters from exhausting the stack or SQLite's
/// expression depth.
constexpr std::size_t maxFilterNesting = 64;
constexpr std::size_t maxFilterConditions = 256;

/// Throws QueryError, with the byte offset of the fault, for a filter that
/// does not read or names a column the table lacks.
CompiledFilter compileFilter(std::string_view filter, const TableSchema& table);

}  // namespace tethrix::service

#endif
