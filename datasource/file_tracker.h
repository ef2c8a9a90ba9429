// Watches one file by polling its modification time once a second on the
// engine's timers, and calls back on the loop's thread when it changes.
#ifndef ZARVO_DATASOURCE_FILE_TRACKER_H
#define ZARVO_DATASOURCE_FILE_TRACKER_H

#include <zarvo/message_dispatcher.h>
#include <zarvo/string_view.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zarvo {

class FileTracker {
public:
    explicit FileTracker(ZvuMessageDispatcher* dispatcher);
    ~FileTracker();
    FileTracker(const FileTracker&) = delete;
    FileTracker& operator=(const FileTracker&) = delete;

    /// Watches `fileName` from now on; its present state counts as seen.
    /// May be called from within the callback.
    void start(string_view fileName, std::function<void(string_view)> callback);
    /// Stops polling. May be called from within the callback.
    void stop();
    /// Seconds of the file's modification time; 0 if it cannot be had.
    std::int64_t getFileModificationTime() const;
    void onTimer(const TimerMessageArguments& arguments);

    bool isRunning() const { return timerToken != nullptr; }

private:
    ZvuMessageDispatcher* messageDispatcher;
    std::shared_ptr<void> timerToken;
    std::int64_t lastModificationTime = 0;
    std::string fileName;
    std::function<void(string_view)> callback;
};

}  // namespace zarvo

#endif
