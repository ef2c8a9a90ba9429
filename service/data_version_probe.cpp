#include "data_version_probe.h"

namespace tethrix::service {

DataVersionProbe::DataVersionProbe(const std::string& databasePath)
    : database(SqliteDatabase::openReadOnly(databasePath)),
      statement(database.prepare("PRAGMA data_version")) {}

std::int64_t DataVersionProbe::version() {
    std::lock_guard<std::mutex> lock(mutex);
    statement.reset();
    statement.step();
    const std::int64_t value = statement.integer(0);
    statement.reset();
    return value;
}

}  // namespace tethrix::service
