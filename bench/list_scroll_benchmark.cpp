// A list view of 20 rows scrolling through 1,000,000 rows of a block-cached
// list (block size 200), forward, backward and with random jumps. The list
// runs behind the real adapter and client library; the service answers from
// memory on the next loop turn.
//
// Each frame the view acquires the rows that enter its window and releases
// those that leave, then the loop runs until idle, which applies the results.
// Reported per scrolled row (a row that entered the window):
//   list_ns_per_row        acquire, release and result application together
//   map_ns_per_row         the same window moves on a plain std::map of rows:
//                          lookup, insert of a new row, erase on leaving
//   list_to_map            the ratio of the two
//   queries_per_1000_rows  queries the list sent
//   peak_resident_rows     the most rows the list's cache held at once
//   unfilled_rows          rows still empty after their frame's loop turn;
//                          must be 0
// Times are the process's CPU time (everything runs on the one loop thread),
// so that the figures hold on a busy machine.
#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"

#include <zarvo/host/list_view.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <benchmark/benchmark.h>
#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace zarvo {
namespace {

const std::uint64_t tableRows = 1000000;
const std::uint64_t windowRows = 20;
const std::uint64_t blockRows = 200;
// Random jumps: one jump every this many frames, forward scrolling between.
const int framesPerJump = 30;
const std::string songsUri = "content://com.tavelorix.content/songs";

enum class Scroll { Forward, Backward, RandomJumps };

// The first row of the window, frame by frame. Every mode runs the same
// number of frames, so that some million rows enter the window.
class ScrollScript {
public:
    ScrollScript(Scroll mode, std::uint64_t step) : mode(mode), step(step) {}

    std::uint64_t start() const { return mode == Scroll::Backward ? lastFirst() : 0; }
    std::uint64_t frameCount() const { return lastFirst() / step; }

    std::uint64_t position(std::uint64_t frame) {
        switch (mode) {
        case Scroll::Forward:
            return frame * step;
        case Scroll::Backward:
            return lastFirst() - frame * step;
        case Scroll::RandomJumps:
            if (frame % framesPerJump == 0) {
                current = std::uniform_int_distribution<std::uint64_t>(0, lastFirst() - framesPerJump * step)(random);
            } else {
                current += step;
            }
            return current;
        }
        return 0;
    }

private:
    static std::uint64_t lastFirst() { return tableRows - windowRows; }

    Scroll mode;
    std::uint64_t step;
    std::mt19937_64 random{20240611};
    std::uint64_t current = 0;
};

// The engine's list view on the window [first, first + windowRows), with the
// rows that entered it at each move.
class ScrollingView {
public:
    explicit ScrollingView(std::shared_ptr<TethrixDataObjectList> list) : view(std::move(list)) {}

    void scrollTo(std::uint64_t newFirst) {
        const std::uint64_t oldFirst = view.first();
        const std::uint64_t oldEnd = oldFirst + view.size();
        // The window goes where it is told, ahead of the rows the list knows.
        view.jumpTo(newFirst, windowRows);
        entered.clear();
        for (const auto& row : view.rows()) {
            if (row.first < oldFirst || row.first >= oldEnd) {
                entered.push_back(row);
            }
        }
        enteredRows += entered.size();
    }

    // After the loop turn every row that entered must hold its own data.
    void checkEnteredRows() {
        for (const auto& entry : entered) {
            const auto id = entry.second->getChild(0);
            if (!id || static_cast<const DataObjectInteger&>(*id).getValue() != static_cast<int>(entry.first)) {
                ++unfilledRows;
            }
        }
    }

    std::uint64_t enteredRows = 0;
    std::uint64_t unfilledRows = 0;

private:
    ListView view;
    std::vector<std::pair<std::uint64_t, std::shared_ptr<DataObject>>> entered;
};

// The same window moves on a plain ordered map of rows.
class MapView {
public:
    explicit MapView(Domain* domain) : domain(domain) {}

    void scrollTo(std::uint64_t newFirst) {
        const std::uint64_t newEnd = newFirst + windowRows;
        for (std::uint64_t index = first; index < end; ++index) {
            if (index < newFirst || index >= newEnd) {
                rows.erase(index);
            }
        }
        for (std::uint64_t index = newFirst; index < newEnd; ++index) {
            if (rows.find(index) == rows.end()) {
                rows.emplace(index,
                             std::make_shared<DataObject>(domain, "row" + boost::lexical_cast<std::string>(index)));
            }
        }
        first = newFirst;
        end = newEnd;
    }

private:
    Domain* domain;
    std::map<std::uint64_t, std::shared_ptr<DataObject>> rows;
    std::uint64_t first = 0;
    std::uint64_t end = 0;
};

// A started list adapter on a served table of tableRows rows.
class Scene {
public:
    Scene() {
        testkit::ServedTable table;
        table.columns = {{"id", ContentDataTypeInteger}, {"title", ContentDataTypeString}};
        table.rowCount = tableRows;
        table.value = [](std::size_t row, std::size_t column) -> boost::any {
            if (column == 0) {
                return static_cast<int>(row);
            }
            return "song " + std::to_string(row);
        };
        service.serve(songsUri, std::move(table));
        service.setState(Connection::StateConnected);
        host.runUntilIdle();

        auto config = std::make_shared<ContentAdapterConfiguration>();
        config->uri = songsUri;
        config->name = "songs";
        config->type = ContentAdapterConfiguration::List;
        config->blockSize = blockRows;
        config->fields = {{"id", DataObject::TypeInteger, "id"}, {"title", DataObject::TypeString, "title"}};
        adapter = std::make_shared<ContentAdapter>(config, &host.domain(), service.context());
        root = std::make_shared<DataObject>(&host.domain(), "Root");
        adapter->initialize(root, true);
        list = std::static_pointer_cast<TethrixDataObjectList>(adapter->getDataObject());
        auto client = service.context()->getClient();
        adapter->start(
            std::make_shared<DefaultContentLoader>(client.get(), client->getConnection()->getMessageDispatcher()));
        host.runUntilIdle();
    }

    ~Scene() {
        // The list and its adapter own each other; drop the adapter's side.
        adapter->stop();
        adapter->initialize(nullptr, false);
    }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    std::shared_ptr<DataObject> root;
    std::shared_ptr<ContentAdapter> adapter;
    std::shared_ptr<TethrixDataObjectList> list;
};

double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void scrollList(benchmark::State& state, Scroll mode) {
    const auto step = static_cast<std::uint64_t>(state.range(0));
    double listSeconds = 0;
    double mapSeconds = 0;
    std::uint64_t rows = 0;
    std::uint64_t queries = 0;
    std::uint64_t unfilled = 0;
    std::size_t peakResident = 0;

    for (auto _ : state) {
        Scene scene;
        ScrollingView view(scene.list);
        ScrollScript script(mode, step);
        view.scrollTo(script.start());
        scene.host.runUntilIdle();
        const std::size_t queriesBefore = scene.service.queries().size();
        view.enteredRows = 0;

        const double listStart = cpuSeconds();
        for (std::uint64_t frame = 0; frame < script.frameCount(); ++frame) {
            view.scrollTo(script.position(frame));
            peakResident = std::max(peakResident, scene.list->getCache().residentItemCount());
            scene.host.runUntilIdle();
            peakResident = std::max(peakResident, scene.list->getCache().residentItemCount());
            view.checkEnteredRows();
        }
        const double seconds = cpuSeconds() - listStart;
        state.SetIterationTime(seconds);
        listSeconds += seconds;
        rows += view.enteredRows;
        unfilled += view.unfilledRows;
        queries += scene.service.queries().size() - queriesBefore;

        testkit::TestHost baselineHost;
        MapView mapView(&baselineHost.domain());
        ScrollScript baselineScript(mode, step);
        mapView.scrollTo(baselineScript.start());
        const double mapStart = cpuSeconds();
        for (std::uint64_t frame = 0; frame < baselineScript.frameCount(); ++frame) {
            mapView.scrollTo(baselineScript.position(frame));
        }
        mapSeconds += cpuSeconds() - mapStart;
    }

    const double rowCount = static_cast<double>(rows);
    state.SetItemsProcessed(static_cast<std::int64_t>(rows));
    state.counters["list_ns_per_row"] = listSeconds * 1e9 / rowCount;
    state.counters["map_ns_per_row"] = mapSeconds * 1e9 / rowCount;
    state.counters["list_to_map"] = listSeconds / mapSeconds;
    state.counters["queries_per_1000_rows"] = static_cast<double>(queries) * 1000.0 / rowCount;
    state.counters["peak_resident_rows"] = static_cast<double>(peakResident);
    state.counters["unfilled_rows"] = static_cast<double>(unfilled);
}

void BM_ScrollForward(benchmark::State& state) {
    scrollList(state, Scroll::Forward);
}
void BM_ScrollBackward(benchmark::State& state) {
    scrollList(state, Scroll::Backward);
}
void BM_ScrollWithRandomJumps(benchmark::State& state) {
    scrollList(state, Scroll::RandomJumps);
}

// The argument is the number of rows scrolled per frame.
BENCHMARK(BM_ScrollForward)->Arg(1)->Arg(8)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScrollBackward)->Arg(1)->Arg(8)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScrollWithRandomJumps)->Arg(1)->Arg(8)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zarvo

BENCHMARK_MAIN();
