// tethrix-service reading one block of 200 rows from a table of 1,000,000
// rows, at the start (index 0) and near the end (index 999,800), beside the
// same reads written directly against SQLite.
//
//   Service/<case>/index:N    ContentStore::execute, as a query arrives
//                             (checks, compiles, prepares, reads the rows);
//                             deep blocks go through the offset index,
//                             which is built by the first deep query and
//                             reused by the rest
//   ServiceCold/<case>        the deep block with the offset index dropped
//                             before every query: the one-time cost of the
//                             first deep block of an ordering
//   Sqlite/LimitOffset/...    SELECT ... LIMIT 200 OFFSET N, what a naive
//                             service would run: it steps over N rows
//   Sqlite/RowidSeek/...      SELECT ... WHERE rowid > N LIMIT 200, the ideal
//                             when rowids are dense (no deletions)
//
// The cases: unsorted; sorted by an indexed text column, ascending and
// descending; filtered (one artist in seven); sorted by a column without an
// index, where SQLite sorts the whole table for any block.
#include "content_store.h"
#include "sqlite_database.h"

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace tethrix::service {
namespace {

constexpr int rowCount = 1000000;
constexpr int blockSize = 200;
constexpr int deepIndex = rowCount - blockSize;

/// The database, made once per run in the temporary directory.
class BenchDatabase {
public:
    static const std::string& path() {
        static BenchDatabase instance;
        return instance.file;
    }

    ~BenchDatabase() { std::filesystem::remove(file); }

private:
    BenchDatabase() {
        file =
            (std::filesystem::temp_directory_path() / ("tethrix-bench-" + std::to_string(::getpid()) + ".db")).string();
        std::filesystem::remove(file);
        auto database = SqliteDatabase::openReadWrite(file);
        database.execute(
            "PRAGMA synchronous = OFF; BEGIN;"
            "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT NOT NULL, artist_id INTEGER, album_id INTEGER,"
            " duration REAL, favourite BOOLEAN, cover TEXT);"
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
            std::to_string(rowCount) +
            ")"
            " INSERT INTO tracks SELECT i, printf('%08x', (i * 2654435761) % 4294967296), i % 7, i / 12,"
            " 120 + (i * 7919) % 300, i % 3 = 0, 'covers/' || (i / 12) || '.png' FROM n;"
            "CREATE INDEX tracks_title ON tracks(title);"
            "COMMIT;");
    }

    std::string file;
};

ContentStore& store() {
    static ContentStore instance(BenchDatabase::path(), defaultAuthority);
    return instance;
}

protocol::Query blockQuery(const char* filter, const char* sort, int index) {
    protocol::Query query;
    query.id = 1;
    query.uri = "content://com.tavelorix.content/tracks";
    query.columns = {"id", "title", "artist_id", "duration", "favourite", "cover"};
    query.filter = filter;
    query.sort = sort;
    query.index = index;
    query.count = blockSize;
    return query;
}

/// The filtered case has fewer rows; its deep block is near its own end.
int indexFor(const char* filter, std::int64_t wanted) {
    if (wanted == 0 || *filter == '\0')
        return static_cast<int>(wanted);
    return rowCount / 7 - blockSize;
}

void serviceBlock(benchmark::State& state, const char* filter, const char* sort) {
    auto query = blockQuery(filter, sort, indexFor(filter, state.range(0)));
    store().execute(query);  // the first deep block builds the offset index
    for (auto _ : state) {
        auto result = store().execute(query);
        if (result.rows.size() != blockSize)
            state.SkipWithError("short block");
        benchmark::DoNotOptimize(result);
    }
}

void serviceColdBlock(benchmark::State& state, const char* filter, const char* sort) {
    auto query = blockQuery(filter, sort, indexFor(filter, deepIndex));
    for (auto _ : state) {
        store().dropCaches();
        auto result = store().execute(query);
        benchmark::DoNotOptimize(result);
    }
}

void sqliteBlock(benchmark::State& state, const std::string& sql) {
    auto database = SqliteDatabase::openReadOnly(BenchDatabase::path());
    auto statement = database.prepare(sql);
    for (auto _ : state) {
        statement.reset();
        statement.bind(1, std::int64_t{state.range(0)});
        int rows = 0;
        while (statement.step()) {
            benchmark::DoNotOptimize(statement.text(1));
            ++rows;
        }
        if (rows != blockSize)
            state.SkipWithError("short block");
    }
}

const std::string columns = "SELECT id, title, artist_id, duration, favourite, cover FROM tracks";

void registerAll() {
    struct Case {
        const char* name;
        const char* filter;
        const char* sort;
    };
    const Case cases[] = {
        {"Unsorted", "", ""},
        {"SortedIndexedAsc", "", "title"},
        {"SortedIndexedDesc", "", "title DESC"},
        {"Filtered", "artist_id=3", ""},
        {"SortedUnindexed", "", "duration DESC"},
    };
    for (const auto& c : cases) {
        benchmark::RegisterBenchmark((std::string("Service/") + c.name).c_str(), serviceBlock, c.filter, c.sort)
            ->ArgName("index")
            ->Arg(0)
            ->Arg(deepIndex)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("ServiceCold/") + c.name).c_str(), serviceColdBlock, c.filter, c.sort)
            ->Unit(benchmark::kMicrosecond);
    }
    const std::pair<const char*, std::string> direct[] = {
        {"Sqlite/LimitOffset/Unsorted", columns + " ORDER BY rowid LIMIT 200 OFFSET ?1"},
        {"Sqlite/LimitOffset/SortedIndexedAsc", columns + " ORDER BY title LIMIT 200 OFFSET ?1"},
        {"Sqlite/RowidSeek/Unsorted", columns + " WHERE rowid > ?1 ORDER BY rowid LIMIT 200"},
    };
    for (const auto& [name, sql] : direct) {
        benchmark::RegisterBenchmark(name, sqliteBlock, sql)
            ->ArgName("index")
            ->Arg(0)
            ->Arg(deepIndex)
            ->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace
}  // namespace tethrix::service

int main(int argc, char** argv) {
    tethrix::service::registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
