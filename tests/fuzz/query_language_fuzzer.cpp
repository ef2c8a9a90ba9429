// Every input is a filter and a sort as a client sends them in a query, the
// two split at the first line break (without one, the input is tried as
// each in turn). The query runs against a small table of every column
// type. Anything but a result or a refusal by the compilers is a fault: an
// exception of another kind, or SQL that SQLite itself refuses, which means
// the compilers let through what they should have stopped.
#include "content_store.h"
#include "query_error.h"
#include "sqlite_database.h"

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace {

using namespace tethrix::service;

ContentStore& store() {
    static std::unique_ptr<ContentStore> instance = [] {
        const auto file =
            std::filesystem::temp_directory_path() / ("query_language_fuzzer-" + std::to_string(getpid()) + ".db");
        std::filesystem::remove(file);
        {
            SqliteDatabase database = SqliteDatabase::openReadWrite(file.string());
            database.execute(
                "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT, artist_id INTEGER, duration REAL,"
                " favourite BOOLEAN, cover TEXT, \"odd \"\"name\" NUMERIC);"
                "INSERT INTO tracks VALUES(1, 'Red Sky', 3, 187.5, 1, 'a.png', 1);"
                "INSERT INTO tracks VALUES(2, NULL, NULL, NULL, NULL, NULL, NULL);"
                "INSERT INTO tracks VALUES(3, 'it''s %_', -7, -0.0, 0, '', 'x');");
        }
        auto opened = std::make_unique<ContentStore>(file.string(), defaultAuthority);
        std::filesystem::remove(file);  // the open connection keeps it
        return opened;
    }();
    return *instance;
}

void run(const std::string& filter, const std::string& sort) {
    tethrix::protocol::Query query;
    query.uri = std::string("content://") + defaultAuthority + "/tracks";
    query.filter = filter;
    query.sort = sort;
    query.count = 10;
    try {
        store().execute(query);
    } catch (const QueryError& error) {
        const std::string reason = error.what();
        if (reason.rfind("database: ", 0) == 0) {
            std::fprintf(stderr, "SQLite refused compiled SQL: %s\nfilter: %s\nsort: %s\n", reason.c_str(),
                         filter.c_str(), sort.c_str());
            std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t split = input.find('\n');
    if (split != std::string::npos) {
        run(input.substr(0, split), input.substr(split + 1));
    } else {
        run(input, std::string());
        run(std::string(), input);
    }
    return 0;
}
