// Finds the row at a deep offset of an ordering without stepping over every
// row before it. SQLite's OFFSET walks all skipped rows, so a block near the
// end of a large table would cost as much as reading the whole table. The
// index keeps the key of every `spacing`-th row of one ordering; a query for
// position p seeks to the nearest key at or below p (an index lookup) and
// skips fewer than `spacing` rows from there.
//
// The index is built lazily: the first query beyond what is known reads the
// keys (only the keys) up to the position wanted, and every later query of
// that ordering reuses them.
#ifndef TETHRIX_SERVICE_OFFSET_INDEX_H
#define TETHRIX_SERVICE_OFFSET_INDEX_H

#include "ordering.h"
#include "sqlite_database.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tethrix::service {

class OffsetIndex {
public:
    static constexpr std::uint64_t spacing = 128;

    /// Where a query for `position` starts.
    struct Seek {
        const OrderKey* from = nullptr;  ///< null: from the first row
        std::uint64_t skip = 0;          ///< rows to skip after `from`
        bool beyondEnd = false;          ///< no row at `position`
    };

    Seek seek(std::uint64_t position, const SqliteDatabase& database, const Ordering& ordering);

    std::size_t checkpointCount() const { return checkpoints.size(); }
    /// Known once a build has reached the last row.
    std::optional<std::uint64_t> rowCount() const { return complete ? std::optional(knownRows) : std::nullopt; }

private:
    void extend(std::size_t wanted, const SqliteDatabase& database, const Ordering& ordering);

    /// checkpoints[k] is the key of the row at position (k + 1) * spacing.
    std::vector<OrderKey> checkpoints;
    bool complete = false;
    std::uint64_t knownRows = 0;
};

/// The offset indexes of recent orderings, least recently used dropped
/// first.
class OffsetIndexCache {
public:
    explicit OffsetIndexCache(std::size_t capacity = 32) : capacity(capacity) {}

    OffsetIndex& indexFor(const Ordering& ordering);
    void clear();
    std::size_t size() const { return indexes.size(); }

private:
    using Usage = std::list<std::string>;
    struct Entry {
        std::unique_ptr<OffsetIndex> index;
        Usage::iterator usage;
    };

    std::size_t capacity;
    std::map<std::string, Entry> indexes;
    Usage recent;  ///< identities, most recently used first
};

}  // namespace tethrix::service

#endif
