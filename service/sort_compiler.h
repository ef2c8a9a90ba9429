// Reads a client's sort expression: columns of the table, each ascending
// unless followed by DESC.
#ifndef TETHRIX_SERVICE_SORT_COMPILER_H
#define TETHRIX_SERVICE_SORT_COMPILER_H

#include "table_schema.h"

#include <string_view>
#include <vector>

namespace tethrix::service {

struct SortKey {
    const TableColumn* column = nullptr;
    bool descending = false;
};

constexpr std::size_t maxSortKeys = 32;

/// Throws QueryError, with the byte offset of the fault, for a sort that
/// does not read or names a column the table lacks. Empty: no keys.
std::vector<SortKey> compileSort(std::string_view sort, const TableSchema& table);

}  // namespace tethrix::service

#endif
