// Tells whether the database changed between two moments, from any thread:
// a connection of its own that only asks SQLite for its data version. A
// result read ahead is sent only if the version read before it was read is
// still the version when it is asked for; so no commit came between, and it
// holds what reading it then would give.
#ifndef TETHRIX_SERVICE_DATA_VERSION_PROBE_H
#define TETHRIX_SERVICE_DATA_VERSION_PROBE_H

#include "sqlite_database.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace tethrix::service {

class DataVersionProbe {
public:
    /// Throws SqliteError if the database cannot be opened.
    explicit DataVersionProbe(const std::string& databasePath);

    /// Changes whenever another connection (of this or another process)
    /// commits. Throws SqliteError if the database cannot be read.
    std::int64_t version();

private:
    std::mutex mutex;
    SqliteDatabase database;
    SqliteStatement statement;
};

}  // namespace tethrix::service

#endif
