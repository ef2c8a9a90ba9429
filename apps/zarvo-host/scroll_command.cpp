// scroll: a list view moving through a list of the source, frame by frame, as
// a user scrolling would, and what that cost.

#include "commands.h"
#include "host_session.h"
#include "service_connection.h"
#include "tree_printer.h"

#include <zarvo/host/list_view.h>
#include <zarvo/host/statistics.h>
#include <zarvo/message_dispatcher.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <limits>
#include <map>
#include <optional>
#include <sstream>

namespace zarvo::host {

namespace {

using Clock = std::chrono::steady_clock;

/// The program's start, as near as a program can tell: set while it is
/// initialised, before main runs.
const Clock::time_point programStart = Clock::now();

struct ScrollOptions {
    std::string path;
    std::optional<std::uint64_t> to;
    std::uint64_t window = 20;
    std::uint64_t step = 4;
    std::vector<std::uint64_t> jumps;
    std::chrono::milliseconds frame{16};
    std::uint64_t printEvery = 0;
};

ScrollOptions parseScrollOptions(const CommandLine& line) {
    ScrollOptions options;
    const std::vector<std::string>& arguments = line.rest;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--to") {
            options.to = parseCount(argument, optionValue(arguments, i));
        } else if (argument == "--window") {
            options.window = parseCount(argument, optionValue(arguments, i));
        } else if (argument == "--step") {
            options.step = parseCount(argument, optionValue(arguments, i));
        } else if (argument == "--jump") {
            options.jumps.push_back(parseCount(argument, optionValue(arguments, i)));
        } else if (argument == "--frame-ms") {
            options.frame = std::chrono::milliseconds(parseCount(argument, optionValue(arguments, i)));
        } else if (argument == "--print-every") {
            options.printEvery = parseCount(argument, optionValue(arguments, i));
        } else if (options.path.empty() && argument.rfind("--", 0) != 0) {
            options.path = argument;
        } else {
            throw UsageError("unexpected argument " + argument + " for scroll");
        }
    }
    if (options.path.empty()) {
        throw UsageError("scroll needs the path of a list, such as tracks");
    }
    if (options.window == 0 || options.step == 0) {
        throw UsageError("--window and --step take at least 1");
    }
    return options;
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// One view scrolling through one list, with what it saw.
class Scroller {
public:
    Scroller(HostSession& session, std::shared_ptr<DataObjectList> list, const ScrollOptions& options)
        : session(session),
          options(options),
          limit(session.options().wait.value_or(defaultSettleLimit)),
          view(list) {}

    /// Scrolls from row 0 until row --to is shown or the list ends, then
    /// waits until the rows shown are filled. False if they never were.
    bool scroll() {
        // The first row of the window that shows row --to last.
        std::uint64_t goal = std::numeric_limits<std::uint64_t>::max();
        if (options.to) {
            goal = *options.to + 1 > options.window ? *options.to + 1 - options.window : 0;
        }
        started = Clock::now();
        lastProgress = started;
        view.moveTo(0, options.window);
        std::uint64_t knownCount = view.list().itemCount();
        Clock::time_point countChanged = Clock::now();
        bool filled = false;
        for (;;) {
            runFrame();
            if (!madeProgress()) {
                reportUnfilled();
                break;
            }
            const std::uint64_t count = view.list().itemCount();
            if (count != knownCount) {
                knownCount = count;
                countChanged = Clock::now();
            }
            const std::uint64_t lastFirst = count > options.window ? count - options.window : 0;
            const std::uint64_t next = std::min({view.first() + options.step, goal, lastFirst});
            if (next == view.first() && (next >= goal || atEndOfList(countChanged))) {
                filled = waitUntilFilled();
                if (filled && options.to && next < goal) {
                    reportShortOfGoal();
                    filled = false;
                }
                break;
            }
            moveTo(next);
        }
        std::cout << "scrolled " << options.path << " in " << frames << " frames to ";
        if (view.rows().empty()) {
            std::cout << "an empty window";
        } else {
            std::cout << "rows " << view.rows().begin()->first << " to " << view.rows().rbegin()->first;
        }
        std::cout << " of " << view.list().itemCount() << std::endl;
        printFirstRow();
        return filled;
    }

    /// Jumps to `index` and waits there until the rows are filled.
    bool jump(std::uint64_t index) {
        const std::uint64_t queriesBefore = sentQueryCount(session.domain());
        const Clock::time_point jumped = Clock::now();
        forgetRowsOutside(index, index + options.window);
        view.jumpTo(index, options.window);
        trackShownRows();
        const bool filled = waitUntilFilled();
        const std::uint64_t queries = sentQueryCount(session.domain()) - queriesBefore;
        std::cout << "jump to row " << index << ": " << (filled ? "filled" : "not filled") << " after " << std::fixed
                  << std::setprecision(1) << millisecondsSince(jumped) << " ms, " << queries
                  << (queries == 1 ? " query" : " queries") << std::endl;
        printFirstRow();
        return filled;
    }

    void report(std::ostream& out) {
        forgetRowsOutside(0, 0);
        out << "rows seen: " << rowsSeen << ", filled while shown: " << rowsSeenFilled;
        if (rowsSeen != 0) {
            out << " (" << std::fixed << std::setprecision(1)
                << 100.0 * static_cast<double>(rowsSeenFilled) / static_cast<double>(rowsSeen) << "%)";
        }
        out << "\nqueries sent: " << sentQueryCount(session.domain()) - settledQueries << "\n";
        out << "peak data objects: " << peakDataObjects << "\n";
        if (firstRowMilliseconds) {
            out << "first row filled: " << std::fixed << std::setprecision(1) << *firstRowMilliseconds
                << " ms after the program's start\n";
        }
        out << "elapsed: " << std::fixed << std::setprecision(2) << millisecondsSince(started) / 1000.0 << " s\n"
            << std::flush;
    }

    void noteSettled() { settledQueries = sentQueryCount(session.domain()); }
    void noteFirstRow(std::optional<double> milliseconds) { firstRowMilliseconds = milliseconds; }

private:
    void moveTo(std::uint64_t first) {
        forgetRowsOutside(first, first + options.window);
        view.moveTo(first, options.window);
        trackShownRows();
    }

    /// One frame: the view binds what changed, the loop runs until the
    /// frame's time is up, and the rows shown are looked at.
    void runFrame() {
        ++frames;
        view.refresh();
        trackShownRows();
        ZvuMessageDispatcher& loop = session.loop();
        const Clock::time_point frameEnd = Clock::now() + options.frame;
        if (options.frame.count() == 0) {
            loop.runUntilIdle();
        } else {
            loop.runUntil([&frameEnd]() { return Clock::now() >= frameEnd; }, options.frame);
        }
        view.refresh();
        trackShownRows();
        noteFilledRows();
        peakDataObjects = std::max(peakDataObjects, liveDataObjectCount());
    }

    /// The list has stopped growing: nothing is asked of the service, the
    /// rows shown are filled and the count has not changed for a while.
    bool atEndOfList(Clock::time_point countChanged) const {
        return view.unfilledCount() == 0 && isIdle(session.domain()) && Clock::now() - countChanged >= quietTime;
    }

    /// False once nothing has moved, grown or filled for the time limit: a
    /// lost service or rows beyond the end.
    bool madeProgress() {
        const std::uint64_t now = view.first() + view.list().itemCount() + rowsFilledTotal;
        if (now != progressMark) {
            progressMark = now;
            lastProgress = Clock::now();
        }
        return Clock::now() - lastProgress < limit;
    }

    bool waitUntilFilled() {
        noteFilledRows();
        lastProgress = Clock::now();
        while (view.unfilledCount() != 0 || view.rows().size() < expectedRows()) {
            runFrame();
            if (!madeProgress()) {
                reportUnfilled();
                return false;
            }
        }
        return true;
    }

    void reportUnfilled() const {
        std::cerr << "zarvo-host: " << view.unfilledCount() << " rows of the window at row " << view.first()
                  << " were not filled, and nothing changed for " << limit.count() << " ms" << std::endl;
    }

    /// The list stopped growing before row --to: it may end there, or a
    /// load never came back. The tool cannot tell which, so it says both.
    void reportShortOfGoal() const {
        const std::uint64_t count = view.list().itemCount();
        std::cerr << "zarvo-host: scroll of " << options.path << " stopped at row " << (count == 0 ? 0 : count - 1)
                  << ", short of row " << *options.to << ": the list holds " << count << " rows and did not grow for "
                  << quietTime.count() << " ms with nothing asked of the service" << std::endl;
    }

    /// A window at the end of the list shows fewer rows.
    std::size_t expectedRows() const {
        const std::uint64_t count = view.list().itemCount();
        if (view.rows().empty() || view.first() >= count) {
            return view.rows().size();
        }
        return static_cast<std::size_t>(std::min<std::uint64_t>(options.window, count - view.first()));
    }

    void trackShownRows() {
        for (const auto& row : view.rows()) {
            tracked.emplace(row.first, false);
        }
    }

    void forgetRowsOutside(std::uint64_t first, std::uint64_t end) {
        for (auto row = tracked.begin(); row != tracked.end();) {
            if (row->first >= first && row->first < end) {
                ++row;
                continue;
            }
            ++rowsSeen;
            rowsSeenFilled += row->second ? 1 : 0;
            row = tracked.erase(row);
        }
    }

    void noteFilledRows() {
        for (const auto& row : view.rows()) {
            bool& filled = tracked[row.first];
            if (filled || !ListView::isFilled(*row.second)) {
                continue;
            }
            filled = true;
            ++rowsFilledTotal;
            if (options.printEvery != 0 && row.first % options.printEvery == 0) {
                std::cout << "  row " << row.first << ": " << fieldsText(*row.second) << std::endl;
            }
        }
    }

    void printFirstRow() const {
        if (!view.rows().empty()) {
            const auto& first = *view.rows().begin();
            std::cout << "  row " << first.first << ": " << fieldsText(*first.second) << std::endl;
        }
    }

    HostSession& session;
    const ScrollOptions& options;
    const std::chrono::milliseconds limit;
    ListView view;
    /// Rows shown now, and whether each was seen filled while shown.
    std::map<std::uint64_t, bool> tracked;
    std::uint64_t rowsSeen = 0;
    std::uint64_t rowsSeenFilled = 0;
    std::uint64_t rowsFilledTotal = 0;
    std::uint64_t frames = 0;
    std::uint64_t settledQueries = 0;
    std::size_t peakDataObjects = 0;
    std::optional<double> firstRowMilliseconds;
    std::uint64_t progressMark = 0;
    Clock::time_point lastProgress;
    Clock::time_point started;
};

}  // namespace

int runScroll(const CommandLine& line) {
    const ScrollOptions options = parseScrollOptions(line);
    HostSession session(line.source);
    // A list has a row once its first row came with its data: the cold
    // start a user waits through before the first filled row.
    std::optional<double> firstRow;
    session.settle([&session, &options, &firstRow]() {
        if (firstRow) {
            return;
        }
        auto found = std::dynamic_pointer_cast<DataObjectList>(session.source().lookupDataContext(options.path));
        if (found && found->itemCount() > 0) {
            firstRow = millisecondsSince(programStart);
        }
    });
    auto list = std::dynamic_pointer_cast<DataObjectList>(session.source().lookupDataContext(options.path));
    if (!list) {
        throw std::runtime_error("no list at " + options.path + " in the tree of " + line.source.name);
    }
    bool filled = true;
    {
        Scroller scroller(session, list, options);
        scroller.noteSettled();
        scroller.noteFirstRow(firstRow);
        filled = scroller.scroll();
        for (const std::uint64_t index : options.jumps) {
            filled = scroller.jump(index) && filled;
        }
        scroller.report(std::cout);
    }
    return filled ? 0 : 1;
}

}  // namespace zarvo::host
