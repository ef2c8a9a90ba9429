#include "test_database.h"

#include <atomic>
#include <unistd.h>

namespace tethrix::service::testing {

TemporaryDirectory::TemporaryDirectory()
{
    static std::atomic<int> counter{0};
    auto base = std::filesystem::temp_directory_path();
    directory = base / ("tethrix-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

void createDatabase(const std::filesystem::path& file, const std::string& script)
{
    auto database = SqliteDatabase::openReadWrite(file.string());
    // Durability is of no use in a test, and syncing every statement is slow.
    database.execute("PRAGMA synchronous = OFF; BEGIN;\n" + script + "\nCOMMIT;");
}

std::string tracksScript(int rows)
{
    std::string script =
        "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT, artist_id INTEGER, duration REAL, "
        "favourite BOOLEAN, cover VARCHAR(200));\n"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(rows) +
        ")\n"
        "INSERT INTO tracks SELECT i, 'Track ' || printf('%05d', i), i % 7, i * 1.5, i % 3 = 0, "
        "CASE WHEN i % 5 = 0 THEN NULL ELSE 'covers/' || i || '.png' END FROM n;\n";
    return script;
}

}  // namespace tethrix::service::testing
