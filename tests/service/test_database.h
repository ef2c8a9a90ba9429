// Temporary directories and SQLite databases for the service's tests.
#ifndef TETHRIX_TESTS_SERVICE_TEST_DATABASE_H
#define TETHRIX_TESTS_SERVICE_TEST_DATABASE_H

#include "sqlite_database.h"

#include <filesystem>
#include <string>

namespace tethrix::service::testing {

/// A fresh directory, removed with everything in it at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return directory; }

private:
    std::filesystem::path directory;
};

/// Creates `file` and runs `script` on it.
void createDatabase(const std::filesystem::path& file, const std::string& script);

/// The media table most tests use: tracks(id, title, artist_id, duration,
/// favourite, cover) with `rows` rows, some of them with NULLs.
std::string tracksScript(int rows);

}  // namespace tethrix::service::testing

#endif
