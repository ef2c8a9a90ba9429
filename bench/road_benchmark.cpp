// The whole road of a list, from SQLite to a list view: tethrix-service on
// the loopback, the WebSocket, the client library, the plug-in's adapter and
// its block-cached list, loaded as zarvo-host loads it, over a table of
// 1,000,000 rows (blocks of 200), beside the same blocks read without the
// road.
//
//   Road/Scroll          a list view of 20 rows pages through every row, 20
//                        rows a frame, each frame waiting until its rows are
//                        filled; items/s is rows shown per second
//   Store/Scroll         the same 5,000 block queries through the service's
//                        ContentStore, in this process, each answered with
//                        the binary result frame the service would send:
//                        no socket, no client
//   Sqlite/Scroll        the same blocks straight from SQLite
//                        (WHERE rowid > N LIMIT 200), every value read
//   Road/Block/index:N   a view jumping to row N of a source that has only
//                        its first row, until the 20 rows shown are filled:
//                        one block's query, answer and application. The
//                        first deep block of an ordering builds the
//                        service's offset index; that happens once, before
//                        the timing.
//
// Times are wall-clock: the work spans the loop, the client's I/O thread and
// the service's threads. The database is made once per run in the temporary
// directory (some seconds). At the end the run prints the ratios of its own
// figures: rows a second of the road and of the store against straight
// SQLite, and the deep block's time against the first block's; for the
// store, also by CPU time, which a loaded machine does not stretch.
#include "host_session.h"
#include "service_connection.h"

#include <zarvo/host/list_view.h>
#include <zarvo/host/statistics.h>

#include "content_store.h"
#include "service.h"
#include "sqlite_database.h"

#include <zarvo/log.h>

#include <benchmark/benchmark.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

namespace zarvo {
namespace {

namespace service = tethrix::service;
using Clock = std::chrono::steady_clock;

const std::int64_t tableRows = 1000000;
const std::uint64_t windowRows = 20;
const std::int64_t blockRows = 200;
const std::int64_t deepIndex = tableRows - blockRows;
const std::chrono::milliseconds patience(60000);

const char* const declaration =
    "<sources><tracks uri=\"com.tavelorix.content/tracks\" type=\"list\" block_size=\"200\">"
    "<field name=\"id\" type=\"int\"/><field name=\"title\" type=\"string\"/>"
    "<field name=\"artist\" column=\"artist_id\" type=\"int\"/><field name=\"duration\" type=\"real\"/>"
    "<field name=\"favourite\" type=\"bool\"/><field name=\"cover\" type=\"string\"/></tracks></sources>";

/// The database and the service, made once per run.
class Environment {
public:
    static Environment& get() {
        static Environment instance;
        return instance;
    }

    ~Environment() {
        if (running) {
            running->stop();
            thread.join();
        }
        std::filesystem::remove_all(directory);
    }

    std::string database() const { return (directory / "tracks.db").string(); }
    std::string url() const { return "127.0.0.1:" + std::to_string(running->endpoint().port()); }

private:
    Environment() : directory(std::filesystem::temp_directory_path() / ("zarvo-road-" + std::to_string(::getpid()))) {
        std::filesystem::create_directories(directory);
        // One transaction, rows made by SQLite itself: a few seconds.
        service::SqliteDatabase::openReadWrite(database())
            .execute(
                "PRAGMA synchronous = OFF; BEGIN;"
                "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT NOT NULL, artist_id INTEGER, duration REAL,"
                " favourite BOOLEAN, cover TEXT);"
                "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                std::to_string(tableRows - 1) +
                ")"
                " INSERT INTO tracks SELECT i, 'Track ' || i, i % 4099, 120 + (i * 7919) % 300, i % 3 = 0,"
                " 'covers/' || (i / 12) || '.png' FROM n;"
                "COMMIT;");
        service::ServiceOptions options;
        options.database = database();
        running = std::make_unique<service::Service>(options);
        thread = std::thread([this] { running->run(); });
    }

    std::filesystem::path directory;
    std::unique_ptr<service::Service> running;
    std::thread thread;
};

/// A source of the plug-in on the service, loaded as zarvo-host loads it,
/// with its first row in.
struct Road {
    Road() : session(options()) {
        list = std::dynamic_pointer_cast<DataObjectList>(session.source().lookupDataContext("tracks"));
        session.loop().runUntil([this]() { return host::isIdle(session.domain()) && list->itemCount() > 0; }, patience);
    }

    static host::SourceOptions options() {
        host::SourceOptions options;
        options.declaration = declaration;
        options.serviceUrl = Environment::get().url();
        return options;
    }

    /// Runs the loop until the rows shown are filled.
    bool fill(ListView& view) {
        return session.loop().runUntil(
            [&view]() {
                view.refresh();
                return view.rows().size() == windowRows && view.unfilledCount() == 0;
            },
            patience);
    }

    host::HostSession session;
    std::shared_ptr<DataObjectList> list;
};

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// CPU time of the calling thread: for the one-thread benchmarks, a figure
/// that other programs on a loaded machine do not stretch.
double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Figures of this run, for the ratios printed at its end: rows a second,
/// and seconds a block.
struct Figures {
    double road = 0;
    double store = 0;
    double sqlite = 0;
    double storeCpu = 0;  ///< rows a CPU second
    double sqliteCpu = 0;
    double firstBlock = 0;
    double deepBlock = 0;
};
Figures figures;

void BM_RoadScroll(benchmark::State& state) {
    std::int64_t rows = 0;
    std::uint64_t queries = 0;
    std::size_t peakDataObjects = 0;
    double totalSeconds = 0;
    double loopCpuSeconds = 0;
    for (auto _ : state) {
        Road road;
        const std::uint64_t queriesBefore = host::sentQueryCount(road.session.domain());
        ListView view(road.list);
        const Clock::time_point start = Clock::now();
        const double cpuStart = threadCpuSeconds();
        for (std::uint64_t first = 0; first + windowRows <= static_cast<std::uint64_t>(tableRows);
             first += windowRows) {
            view.moveTo(first, windowRows);
            if (!road.fill(view)) {
                state.SkipWithError("rows not filled");
                return;
            }
            peakDataObjects = std::max(peakDataObjects, liveDataObjectCount());
        }
        loopCpuSeconds += threadCpuSeconds() - cpuStart;
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        totalSeconds += seconds;
        rows += tableRows;
        queries += host::sentQueryCount(road.session.domain()) - queriesBefore;
    }
    state.SetItemsProcessed(rows);
    figures.road = static_cast<double>(rows) / totalSeconds;
    state.counters["queries"] = static_cast<double>(queries);
    state.counters["peak_data_objects"] = static_cast<double>(peakDataObjects);
    // The loop's CPU time over the wall time: the rest is waiting for blocks.
    state.counters["loop_busy"] = loopCpuSeconds / totalSeconds;
}

void BM_StoreScroll(benchmark::State& state) {
    service::ContentStore store(Environment::get().database(), service::defaultAuthority);
    tethrix::protocol::Query query;
    query.uri = "content://com.tavelorix.content/tracks";
    query.columns = {"id", "title", "artist_id", "duration", "favourite", "cover"};
    query.count = blockRows;
    std::int64_t rows = 0;
    double totalSeconds = 0;
    double cpuSeconds = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const double cpuStart = threadCpuSeconds();
        for (query.index = 0; query.index < tableRows; query.index += blockRows) {
            const auto frame = store.executeFrame(query);
            rows += static_cast<std::int64_t>(frame.rows);
            benchmark::DoNotOptimize(frame);
        }
        cpuSeconds += threadCpuSeconds() - cpuStart;
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        totalSeconds += seconds;
    }
    state.SetItemsProcessed(rows);
    figures.store = static_cast<double>(rows) / totalSeconds;
    figures.storeCpu = static_cast<double>(rows) / cpuSeconds;
}

void BM_SqliteScroll(benchmark::State& state) {
    auto database = service::SqliteDatabase::openReadOnly(Environment::get().database());
    auto statement = database.prepare(
        "SELECT id, title, artist_id, duration, favourite, cover FROM tracks WHERE rowid > ?1 ORDER BY rowid"
        " LIMIT 200");
    std::int64_t rows = 0;
    double totalSeconds = 0;
    double cpuSeconds = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const double cpuStart = threadCpuSeconds();
        for (std::int64_t index = 0; index < tableRows; index += blockRows) {
            statement.reset();
            // Row i has rowid i; the block at index N starts after rowid N - 1.
            statement.bind(1, index - 1);
            while (statement.step()) {
                benchmark::DoNotOptimize(statement.integer(0));
                benchmark::DoNotOptimize(std::string(statement.text(1)));
                benchmark::DoNotOptimize(statement.integer(2));
                benchmark::DoNotOptimize(statement.real(3));
                benchmark::DoNotOptimize(statement.integer(4));
                benchmark::DoNotOptimize(std::string(statement.text(5)));
                ++rows;
            }
        }
        cpuSeconds += threadCpuSeconds() - cpuStart;
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        totalSeconds += seconds;
    }
    state.SetItemsProcessed(rows);
    figures.sqlite = static_cast<double>(rows) / totalSeconds;
    figures.sqliteCpu = static_cast<double>(rows) / cpuSeconds;
}

void BM_RoadBlock(benchmark::State& state) {
    const auto index = static_cast<std::uint64_t>(state.range(0));
    {
        // The service learns the ordering's deep keys once.
        Road warm;
        ListView view(warm.list);
        view.jumpTo(index, windowRows);
        warm.fill(view);
    }
    double totalSeconds = 0;
    for (auto _ : state) {
        Road road;
        ListView view(road.list);
        const Clock::time_point start = Clock::now();
        view.jumpTo(index, windowRows);
        if (!road.fill(view)) {
            state.SkipWithError("rows not filled");
            return;
        }
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        totalSeconds += seconds;
    }
    (index == 0 ? figures.firstBlock : figures.deepBlock) = totalSeconds / static_cast<double>(state.iterations());
}

void printRatio(const char* what, double numerator, double denominator) {
    if (numerator > 0 && denominator > 0) {
        std::printf("%-40s %.3f\n", what, numerator / denominator);
    }
}

BENCHMARK(BM_RoadScroll)->Name("Road/Scroll")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreScroll)->Name("Store/Scroll")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SqliteScroll)->Name("Sqlite/Scroll")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RoadBlock)
    ->Name("Road/Block")
    ->ArgName("index")
    ->Arg(0)
    ->Arg(deepIndex)
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMicrosecond);

/// Keeps the figures readable: every source made logs its start as info.
class WarningsOnly : public Logger {
public:
    void writeOverride(LogLevel level, string_view levelName, string_view category, string_view file, unsigned int line,
                       string_view message) override {
        if (level != LogLevel::Info) {
            fallback.writeOverride(level, levelName, category, file, line, message);
        }
    }

private:
    DefaultLogger fallback;
};

}  // namespace
}  // namespace zarvo

int main(int argc, char** argv) {
    zarvo::WarningsOnly logger;
    zarvo::DefaultLogger::s_chainedLogger = &logger;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    zarvo::printRatio("road / straight SQLite (rows/s)", zarvo::figures.road, zarvo::figures.sqlite);
    zarvo::printRatio("store / straight SQLite (rows/s)", zarvo::figures.store, zarvo::figures.sqlite);
    zarvo::printRatio("store / straight SQLite (rows/CPU s)", zarvo::figures.storeCpu, zarvo::figures.sqliteCpu);
    zarvo::printRatio("block at 999800 / block at 0 (time)", zarvo::figures.deepBlock, zarvo::figures.firstBlock);
    benchmark::Shutdown();
    zarvo::DefaultLogger::s_chainedLogger = nullptr;
    return 0;
}
