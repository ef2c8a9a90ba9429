// watch: every notification of a running source, one line each, as it
// happens.

#include "commands.h"
#include "host_session.h"
#include "tree_watcher.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <limits>

namespace zarvo::host {

namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void onInterrupt(int) {
    interrupted = 1;
}

// A signal cannot wake the loop safely; a timer this often lets it look.
const std::chrono::milliseconds signalPollInterval(50);
const std::uint64_t defaultRowsPerList = 10;

struct WatchOptions {
    std::optional<std::chrono::milliseconds> duration;
    std::uint64_t rowsPerList = defaultRowsPerList;
};

std::chrono::milliseconds parseSeconds(const std::string& option, const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || !(seconds >= 0) || seconds > 1e9) {
        throw UsageError("option " + option + " takes a number of seconds, not \"" + text + "\"");
    }
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0 + 0.5));
}

WatchOptions parseWatchOptions(const CommandLine& line) {
    WatchOptions options;
    for (std::size_t i = 0; i < line.rest.size(); ++i) {
        const std::string& argument = line.rest[i];
        if (argument == "--for") {
            options.duration = parseSeconds(argument, optionValue(line.rest, i));
        } else if (argument == "--rows") {
            options.rowsPerList = parseCount(argument, optionValue(line.rest, i));
        } else {
            throw UsageError("unexpected argument " + argument + " for watch");
        }
    }
    return options;
}

}  // namespace

int runWatch(const CommandLine& line) {
    const WatchOptions options = parseWatchOptions(line);
    HostSession session(line.source);
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    sigaction(SIGINT, &action, &previous);
    {
        TreeWatcher watcher(session.source(), std::cout, options.rowsPerList);
        const std::shared_ptr<void> poll =
            session.loop().addTimer(signalPollInterval, ZvuTimerMessageModeRepeat, [](const auto&) {});
        session.loop().runUntil([]() { return interrupted != 0; },
                                options.duration.value_or(std::chrono::milliseconds::max()));
        session.loop().removeTimer(poll);
    }
    sigaction(SIGINT, &previous, nullptr);
    return 0;
}

}  // namespace zarvo::host
