// The line between one browser's WebSocket connection, on the inspector
// server's thread, and the inspector on the engine's loop. Both sides hold it.
// The server leaves the windows the page asks for; the loop takes them at its
// next frame and sends what the page is to show. Everything crossing it is
// bounded: one pending window per list, and a backlog of bytes past which the
// browser is dropped.
#ifndef ZARVO_HOST_BROWSER_CHANNEL_H
#define ZARVO_HOST_BROWSER_CHANNEL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace zarvo::host {

/// Lists one browser may view at once; a window for another list is ignored.
constexpr std::size_t maxViewsPerBrowser = 32;
/// Rows one view shows at most; a larger window is cut to this.
constexpr std::uint32_t maxWindowRows = 200;
/// Bytes sent to a browser and not yet written to its socket; past this the
/// browser is too slow and is dropped.
constexpr std::size_t maxBrowserBacklogBytes = 8 * 1024 * 1024;

/// The rows of a list a page shows. `count` 0 ends the view.
struct ListWindow {
    std::uint64_t first = 0;
    std::uint32_t count = 0;
    /// Shown whatever the list's count: the page jumped there before the
    /// list knew it had such rows.
    bool jump = false;
};

class BrowserChannel {
public:
    /// `deliver` runs on the loop and hands a message to the server's thread;
    /// `close` asks the server to close the connection, saying why.
    BrowserChannel(std::function<void(std::string)> deliver, std::function<void(std::string)> close)
        : deliverMessage(std::move(deliver)),
          closeConnection(std::move(close)) {}

    // The server's side.
    void requestWindow(std::uint32_t list, const ListWindow& window) {
        std::lock_guard<std::mutex> lock(mutex);
        if (windows.size() < maxViewsPerBrowser || windows.count(list) != 0) {
            windows[list] = window;
        }
    }
    void markClosed() { closed = true; }
    /// A message has been written to the socket or dropped.
    void written(std::size_t bytes) { backlog -= bytes; }

    // The loop's side.
    std::map<std::uint32_t, ListWindow> takeWindowRequests() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(windows);
    }
    bool isClosed() const { return closed; }
    /// False, and the connection is closed, if the browser has not taken
    /// what it was sent before.
    bool send(std::string message) {
        if (closed) {
            return false;
        }
        if (backlog + message.size() > maxBrowserBacklogBytes) {
            closed = true;
            closeConnection("the browser did not keep up: over " + std::to_string(maxBrowserBacklogBytes) +
                            " bytes waited to be sent");
            return false;
        }
        backlog += message.size();
        deliverMessage(std::move(message));
        return true;
    }

private:
    std::function<void(std::string)> deliverMessage;
    std::function<void(std::string)> closeConnection;
    std::mutex mutex;
    std::map<std::uint32_t, ListWindow> windows;
    std::atomic<bool> closed{false};
    std::atomic<std::size_t> backlog{0};
};

}  // namespace zarvo::host

#endif
