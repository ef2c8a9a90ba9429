#include "offset_index.h"

namespace tethrix::service {

namespace {

/// Checkpoints read beyond the one needed, so that scrolling on through a
/// list extends the index in fewer, larger steps.
constexpr std::size_t readAhead = 16;

}  // namespace

OffsetIndex::Seek OffsetIndex::seek(std::uint64_t position, const SqliteDatabase& database, const Ordering& ordering) {
    Seek result;
    std::uint64_t whole = position / spacing;
    if (whole == 0) {
        result.skip = position;
        return result;
    }
    if (checkpoints.size() < whole && !complete)
        extend(static_cast<std::size_t>(whole) + readAhead, database, ordering);
    if (complete && position >= knownRows) {
        result.beyondEnd = true;
        return result;
    }
    result.from = &checkpoints[whole - 1];
    result.skip = position - whole * spacing;
    return result;
}

void OffsetIndex::extend(std::size_t wanted, const SqliteDatabase& database, const Ordering& ordering) {
    std::vector<SqlValue> parameters;
    const OrderKey* from = checkpoints.empty() ? nullptr : &checkpoints.back();
    std::string sql = "SELECT " + ordering.keyColumns() + ordering.fromClause(from, parameters);
    auto statement = database.prepare(sql);
    statement.bindAll(parameters);

    // The scan starts at the last checkpoint's row (or the first row), whose
    // key is known already.
    std::uint64_t position = checkpoints.size() * spacing;
    int parts = static_cast<int>(ordering.keyPartCount());
    bool first = true;
    while (checkpoints.size() < wanted) {
        if (!statement.step()) {
            complete = true;
            knownRows = position;
            return;
        }
        if (!first && position % spacing == 0) {
            OrderKey key;
            key.reserve(static_cast<std::size_t>(parts));
            for (int i = 0; i < parts; ++i)
                key.push_back(statement.value(i));
            checkpoints.push_back(std::move(key));
        }
        first = false;
        ++position;
    }
}

OffsetIndex& OffsetIndexCache::indexFor(const Ordering& ordering) {
    const std::string& identity = ordering.identity();
    auto found = indexes.find(identity);
    if (found != indexes.end()) {
        recent.splice(recent.begin(), recent, found->second.usage);
        return *found->second.index;
    }
    if (indexes.size() >= capacity) {
        indexes.erase(recent.back());
        recent.pop_back();
    }
    recent.push_front(identity);
    auto& entry = indexes[identity];
    entry.index = std::make_unique<OffsetIndex>();
    entry.usage = recent.begin();
    return *entry.index;
}

void OffsetIndexCache::clear() {
    indexes.clear();
    recent.clear();
}

}  // namespace tethrix::service
