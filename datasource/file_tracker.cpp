#include "datasource/file_tracker.h"

#include <sys/stat.h>

#include <chrono>

namespace zarvo {

namespace {

const std::chrono::milliseconds pollInterval(1000);

}  // namespace

FileTracker::FileTracker(ZvuMessageDispatcher* dispatcher) : messageDispatcher(dispatcher) {}

FileTracker::~FileTracker() {
    stop();
}

void FileTracker::start(string_view newFileName, std::function<void(string_view)> newCallback) {
    stop();
    fileName.assign(newFileName.data(), newFileName.size());
    callback = std::move(newCallback);
    lastModificationTime = getFileModificationTime();
    // The repeating mode: onTimer never re-arms the timer.
    timerToken = addTimerHandler(messageDispatcher, pollInterval, ZvuTimerMessageModeRepeat,
                                 [this](const TimerMessageArguments& arguments) { onTimer(arguments); });
}

void FileTracker::stop() {
    if (!timerToken) {
        return;
    }
    removeTimerHandler(messageDispatcher, timerToken);
    timerToken.reset();
}

std::int64_t FileTracker::getFileModificationTime() const {
    struct stat status {};
    if (::stat(fileName.c_str(), &status) != 0) {
        return 0;  // a missing file is simply time 0
    }
    return static_cast<std::int64_t>(status.st_mtime);
}

void FileTracker::onTimer(const TimerMessageArguments& /*arguments*/) {
    if (fileName.empty()) {
        return;
    }
    const std::int64_t current = getFileModificationTime();
    if (current == lastModificationTime) {
        return;
    }
    // The callback may stop and restart this tracker (a reload does), which
    // replaces `callback` while it runs; call a copy of it.
    std::function<void(string_view)> running = callback;
    const std::string watched = fileName;
    running(watched);
    // Only now: if the callback throws, the change is seen again next tick.
    lastModificationTime = current;
}

}  // namespace zarvo
