// The inspector's HTTP and WebSocket server, on one port and a thread of its
// own. It serves the page's files, and hands everything that needs the data
// source to the engine's loop through an InspectorBackend: the server's
// thread never touches a data object.
#ifndef ZARVO_HOST_INSPECTOR_SERVER_H
#define ZARVO_HOST_INSPECTOR_SERVER_H

#include "browser_channel.h"

#include <zarvo/message_dispatcher.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zarvo::host {

/// Connections open at once, HTTP and WebSocket; one more is closed at once.
constexpr std::size_t maxInspectorConnections = 64;
/// Browsers watching at once; one more is refused with 503.
constexpr std::size_t maxInspectorBrowsers = 16;
/// Requests waiting for the loop at once (snapshots, images); one more is
/// answered 503.
constexpr std::size_t maxLoopRequests = 8;

/// Pixels of a texture, as copied on the loop for encoding elsewhere.
struct TexturePixels {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    int channels = 0;  ///< 1 grey, 2 grey and alpha, 3 RGB, 4 RGBA
    bool premultiplied = false;
    std::vector<std::uint8_t> pixels;
};

/// What the server asks of the data source side. Every operation runs on
/// the engine's loop; a reply may be called there, at once or later.
class InspectorBackend {
public:
    virtual ~InspectorBackend();
    virtual void addBrowser(std::shared_ptr<BrowserChannel> channel) = 0;
    /// The data snapshot XML of the source, or (empty XML) why there is none.
    virtual void takeSnapshot(std::function<void(std::string xml, std::string error)> reply) = 0;
    /// The texture loaded for `url`, or the reason there is none.
    virtual void loadImage(const std::string& url,
                           std::function<void(std::shared_ptr<TexturePixels>, std::string)> reply) = 0;
    /// The name under which the snapshot is downloaded.
    virtual std::string snapshotFileName() const = 0;
};

struct InspectorServerOptions {
    std::string bind = "127.0.0.1";
    unsigned short port = 0;
    /// Holds index.html, inspector.css and inspector.js.
    std::string pageDirectory;
};

class InspectorServer {
public:
    /// Listens at once; throws std::runtime_error if it cannot. Work for
    /// the backend is posted to `loop`, and dropped there once the backend
    /// is gone.
    InspectorServer(const InspectorServerOptions& options, ZvuMessageDispatcher& loop,
                    std::weak_ptr<InspectorBackend> backend);
    /// Closes every connection and joins the thread.
    ~InspectorServer();
    InspectorServer(const InspectorServer&) = delete;
    InspectorServer& operator=(const InspectorServer&) = delete;

    /// http://ADDRESS:PORT/
    std::string url() const;

    struct Shared;

private:
    std::shared_ptr<Shared> shared;
    std::thread thread;
};

/// The page files installed with the program: beside it under
/// ../share/zarvo-host/inspector, else those of the source tree it was
/// built from. Empty if neither is there.
std::string findInspectorPage();

/// A texture as a PNG file.
std::string encodePng(const TexturePixels& texture);

}  // namespace zarvo::host

#endif
