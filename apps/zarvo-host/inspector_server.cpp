#include "inspector_server.h"

#include <tethrix/protocol/value_text.h>

#include <zarvo/log.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

namespace zarvo::host {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

/// An HTTP client idle this long is dropped; browsers have the WebSocket's
/// own keep-alive.
constexpr std::chrono::seconds httpIdleTimeout{30};
/// The header of a request, in bytes; the page's requests carry no body.
constexpr std::uint32_t maxRequestHeaderBytes = 16 * 1024;
/// A message from the page: a window of one list.
constexpr std::size_t maxBrowserMessageBytes = 1024;
/// A page file larger than this is not served.
constexpr std::uintmax_t maxPageFileBytes = 4 * 1024 * 1024;

const char* const websocketPath = "/ws";

struct PageFile {
    const char* path;
    const char* file;
    const char* type;
};

const PageFile pageFiles[] = {
    {"/", "index.html", "text/html; charset=utf-8"},
    {"/index.html", "index.html", "text/html; charset=utf-8"},
    {"/inspector.css", "inspector.css", "text/css; charset=utf-8"},
    {"/inspector.js", "inspector.js", "text/javascript; charset=utf-8"},
};

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string programDirectory() {
    char buffer[4096];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0) {
        return ".";
    }
    const std::string path(buffer, static_cast<std::size_t>(length));
    return path.substr(0, path.find_last_of('/'));
}

/// The value of `name` in the query of `target`, percent-decoded.
std::string queryParameter(beast::string_view target, const std::string& name) {
    const std::size_t question = target.find('?');
    if (question == beast::string_view::npos) {
        return std::string();
    }
    std::string query(target.substr(question + 1));
    std::istringstream pairs(query);
    std::string pair;
    while (std::getline(pairs, pair, '&')) {
        if (pair.compare(0, name.size() + 1, name + "=") != 0) {
            continue;
        }
        std::string value;
        for (std::size_t i = name.size() + 1; i < pair.size(); ++i) {
            if (pair[i] == '%' && i + 2 < pair.size() && tethrix::protocol::hexDigitValue(pair[i + 1]) >= 0 &&
                tethrix::protocol::hexDigitValue(pair[i + 2]) >= 0) {
                value += static_cast<char>(tethrix::protocol::hexDigitValue(pair[i + 1]) * 16 +
                                           tethrix::protocol::hexDigitValue(pair[i + 2]));
                i += 2;
            } else {
                value += pair[i] == '+' ? ' ' : pair[i];
            }
        }
        return value;
    }
    return std::string();
}

class Connection {
public:
    virtual ~Connection() = default;
    virtual void shutdown() = 0;
};

}  // namespace

InspectorBackend::~InspectorBackend() = default;

struct InspectorServer::Shared : std::enable_shared_from_this<InspectorServer::Shared> {
    Shared(const InspectorServerOptions& options, ZvuMessageDispatcher& loop, std::weak_ptr<InspectorBackend> backend)
        : options(options),
          loop(loop),
          backend(std::move(backend)),
          acceptor(io),
          work(asio::make_work_guard(io)) {}

    /// Runs `task` on the loop with the backend, if it is still there.
    void toLoop(std::function<void(InspectorBackend&)> task) {
        std::weak_ptr<InspectorBackend> weak = backend;
        loop.post([weak, task = std::move(task)]() {
            if (const auto alive = weak.lock()) {
                task(*alive);
            }
        });
    }

    void track(const std::shared_ptr<Connection>& connection) {
        connections.erase(std::remove_if(connections.begin(), connections.end(),
                                         [](const std::weak_ptr<Connection>& weak) { return weak.expired(); }),
                          connections.end());
        connections.push_back(connection);
    }

    void accept();

    const InspectorServerOptions options;
    ZvuMessageDispatcher& loop;
    const std::weak_ptr<InspectorBackend> backend;
    asio::io_context io;
    tcp::acceptor acceptor;
    asio::executor_work_guard<asio::io_context::executor_type> work;
    // On the server's thread only.
    std::vector<std::weak_ptr<Connection>> connections;
    std::size_t connectionCount = 0;
    std::size_t browserCount = 0;
    std::size_t loopRequests = 0;
    /// Connections waiting for the loop's reply, held here as nothing is
    /// under way on them meanwhile.
    std::set<std::shared_ptr<Connection>> waiting;
};

namespace {

using Shared = InspectorServer::Shared;

/// One browser's WebSocket connection.
class BrowserConnection : public Connection, public std::enable_shared_from_this<BrowserConnection> {
public:
    BrowserConnection(beast::tcp_stream&& stream, Shared& shared) : socket(std::move(stream)), shared(shared) {
        ++shared.browserCount;
    }
    ~BrowserConnection() override {
        --shared.browserCount;
        if (channel) {
            channel->markClosed();
        }
    }

    void run(http::request<http::empty_body> request) {
        socket.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        socket.read_message_max(maxBrowserMessageBytes);
        socket.async_accept(request, beast::bind_front_handler(&BrowserConnection::onAccept, shared_from_this()));
    }

    void shutdown() override { close(); }

private:
    void onAccept(beast::error_code error) {
        if (error) {
            return;
        }
        socket.text(true);
        std::weak_ptr<Shared> server = shared.shared_from_this();
        std::weak_ptr<BrowserConnection> weak = shared_from_this();
        // The loop keeps the channel; what it sends comes over to this
        // thread and into the outbox, if server and connection are still
        // there. The server holds itself until its thread has ended, so the
        // loop never lets go of it last while the thread runs.
        channel = std::make_shared<BrowserChannel>(
            [server, weak](std::string message) {
                if (const auto alive = server.lock()) {
                    asio::post(alive->io, [weak, message = std::move(message)]() mutable {
                        if (const auto self = weak.lock()) {
                            self->enqueue(std::move(message));
                        }
                    });
                }
            },
            [server, weak](std::string reason) {
                if (const auto alive = server.lock()) {
                    asio::post(alive->io, [weak, reason = std::move(reason)]() {
                        if (const auto self = weak.lock()) {
                            self->drop(reason);
                        }
                    });
                }
            });
        shared.toLoop([channel = channel](InspectorBackend& backend) { backend.addBrowser(channel); });
        readNext();
    }

    void readNext() {
        socket.async_read(buffer, beast::bind_front_handler(&BrowserConnection::onRead, shared_from_this()));
    }

    void onRead(beast::error_code error, std::size_t) {
        if (error) {
            close();
            return;
        }
        handle(beast::buffers_to_string(buffer.data()));
        buffer.consume(buffer.size());
        readNext();
    }

    /// "view LIST FIRST COUNT" or "jump LIST FIRST COUNT"; anything else is
    /// ignored, as the page is read-only.
    void handle(const std::string& message) {
        std::istringstream words(message);
        std::string verb;
        std::uint32_t list = 0;
        ListWindow window;
        if (!(words >> verb >> list >> window.first >> window.count) || (verb != "view" && verb != "jump")) {
            return;
        }
        window.jump = verb == "jump";
        window.count = std::min(window.count, maxWindowRows);
        channel->requestWindow(list, window);
    }

    void enqueue(std::string message) {
        if (closed) {
            return;
        }
        outbox.push_back(std::move(message));
        if (!writing) {
            writeNext();
        }
    }

    void writeNext() {
        if (outbox.empty()) {
            writing = false;
            return;
        }
        writing = true;
        socket.async_write(asio::buffer(outbox.front()),
                           beast::bind_front_handler(&BrowserConnection::onWrite, shared_from_this()));
    }

    void onWrite(beast::error_code error, std::size_t) {
        channel->written(outbox.front().size());
        outbox.pop_front();
        if (error) {
            outbox.clear();
            close();
            return;
        }
        writeNext();
    }

    /// Closes at once, without a closing handshake: a browser that does
    /// not take what it is sent would not take that either, and the
    /// server's thread must not wait for it.
    void close() {
        if (closed) {
            return;
        }
        closed = true;
        if (channel) {
            channel->markClosed();
        }
        beast::error_code ignored;
        beast::get_lowest_layer(socket).socket().shutdown(tcp::socket::shutdown_both, ignored);
        beast::get_lowest_layer(socket).close();
    }

    void drop(const std::string& reason) {
        if (!closed) {
            ZARVO_LOG_WARNING("inspect", "A browser was dropped: {}", reason);
            close();
        }
    }

    websocket::stream<beast::tcp_stream> socket;
    Shared& shared;
    std::shared_ptr<BrowserChannel> channel;
    beast::flat_buffer buffer;
    std::deque<std::string> outbox;
    bool writing = false;
    bool closed = false;
};

/// One HTTP connection: page files, the snapshot, images, and the upgrade
/// to a browser's WebSocket.
class HttpConnection : public Connection, public std::enable_shared_from_this<HttpConnection> {
public:
    HttpConnection(tcp::socket&& socket, Shared& shared) : stream(std::move(socket)), shared(shared) {
        ++shared.connectionCount;
    }
    ~HttpConnection() override { --shared.connectionCount; }

    void run() { readRequest(); }

    void shutdown() override {
        beast::error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream.close();
    }

private:
    using Response = http::response<http::string_body>;
    using Reply = std::function<void(std::function<Response()>)>;

    void readRequest() {
        parser.emplace();
        parser->header_limit(maxRequestHeaderBytes);
        stream.expires_after(httpIdleTimeout);
        http::async_read(stream, buffer, *parser,
                         beast::bind_front_handler(&HttpConnection::onRead, shared_from_this()));
    }

    void onRead(beast::error_code error, std::size_t) {
        if (error) {
            return;  // closed, timed out, too large or not HTTP: dropped
        }
        request = parser->release();
        const beast::string_view target = request.target();
        const beast::string_view path = target.substr(0, target.find('?'));
        if (websocket::is_upgrade(request)) {
            if (path != websocketPath) {
                return respond(text(http::status::not_found, "no WebSocket here; the page's is /ws\n"));
            }
            if (shared.browserCount >= maxInspectorBrowsers) {
                return respond(text(http::status::service_unavailable,
                                    "already " + std::to_string(maxInspectorBrowsers) + " browsers watch\n"));
            }
            stream.expires_never();
            auto browser = std::make_shared<BrowserConnection>(std::move(stream), shared);
            shared.track(browser);
            browser->run(std::move(request));
            return;
        }
        if (request.method() != http::verb::get && request.method() != http::verb::head) {
            return respond(text(http::status::method_not_allowed, "the inspector is read-only\n"));
        }
        for (const PageFile& file : pageFiles) {
            if (path == file.path) {
                return servePageFile(file);
            }
        }
        if (path == "/snapshot.xml") {
            return askLoop([](InspectorBackend& backend, Reply reply) {
                const std::string name = backend.snapshotFileName();
                backend.takeSnapshot([reply, name](std::string xml, std::string error) {
                    if (!error.empty()) {
                        reply([error]() { return text(http::status::internal_server_error, error + "\n"); });
                        return;
                    }
                    auto body = std::make_shared<std::string>(std::move(xml));
                    reply([body, name]() {
                        Response response{http::status::ok, 11};
                        response.set(http::field::content_type, "application/xml; charset=utf-8");
                        response.set(http::field::content_disposition, "attachment; filename=\"" + name + "\"");
                        response.body() = std::move(*body);
                        return response;
                    });
                });
            });
        }
        if (path == "/image") {
            const std::string url = queryParameter(target, "url");
            return askLoop([url](InspectorBackend& backend, Reply reply) {
                backend.loadImage(url, [reply](std::shared_ptr<TexturePixels> texture, std::string why) {
                    // Encoded on the server's thread, not on the loop.
                    reply([texture, why]() { return imageResponse(texture, why); });
                });
            });
        }
        respond(text(http::status::not_found, "nothing here\n"));
    }

    static Response imageResponse(const std::shared_ptr<TexturePixels>& texture, const std::string& why) {
        if (!texture) {
            Response response{http::status::not_found, 11};
            response.set(http::field::content_type, "text/plain; charset=utf-8");
            response.body() = why;
            return response;
        }
        Response response{http::status::ok, 11};
        response.set(http::field::content_type, "image/png");
        response.set(http::field::cache_control, "max-age=60");
        response.body() = encodePng(*texture);
        return response;
    }

    /// Runs `work` on the loop; the response its reply makes is made and
    /// sent back here.
    void askLoop(std::function<void(InspectorBackend&, Reply)> work) {
        if (shared.loopRequests >= maxLoopRequests) {
            return respond(text(http::status::service_unavailable,
                                "already " + std::to_string(maxLoopRequests) + " requests wait for the data source\n"));
        }
        ++shared.loopRequests;
        stream.expires_never();
        shared.waiting.insert(shared_from_this());
        std::weak_ptr<Shared> alive = shared.shared_from_this();
        std::weak_ptr<HttpConnection> weak = shared_from_this();
        shared.toLoop([work = std::move(work), alive, weak](InspectorBackend& backend) {
            work(backend, [alive, weak](std::function<Response()> make) {
                const auto server = alive.lock();
                if (!server) {
                    return;
                }
                asio::post(server->io, [server = server.get(), weak, make = std::move(make)]() {
                    --server->loopRequests;
                    if (const auto connection = weak.lock()) {
                        server->waiting.erase(connection);
                        connection->respond(make());
                    }
                });
            });
        });
    }

    void servePageFile(const PageFile& file) {
        const std::string path = shared.options.pageDirectory + "/" + file.file;
        std::ifstream in(path, std::ios::binary);
        std::ostringstream content;
        if (!in || !(content << in.rdbuf()) || content.tellp() > static_cast<std::streamoff>(maxPageFileBytes)) {
            return respond(text(http::status::internal_server_error, "cannot read the page file " + path + "\n"));
        }
        Response response{http::status::ok, 11};
        response.set(http::field::content_type, file.type);
        response.set(http::field::cache_control, "no-cache");
        response.body() = content.str();
        respond(std::move(response));
    }

    static Response text(http::status status, std::string body) {
        Response response{status, 11};
        response.set(http::field::content_type, "text/plain; charset=utf-8");
        response.body() = std::move(body);
        return response;
    }

    void respond(Response response) {
        response.version(request.version());
        response.keep_alive(request.keep_alive());
        response.set(http::field::server, "zarvo-host inspect");
        response.prepare_payload();
        if (request.method() == http::verb::head) {
            response.body().clear();
        }
        auto message = std::make_shared<Response>(std::move(response));
        stream.expires_after(httpIdleTimeout);
        http::async_write(stream, *message, [self = shared_from_this(), message](beast::error_code error, std::size_t) {
            if (error || !message->keep_alive()) {
                self->shutdown();
                return;
            }
            self->readRequest();
        });
    }

    beast::tcp_stream stream;
    Shared& shared;
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::empty_body>> parser;
    http::request<http::empty_body> request;
};

}  // namespace

void InspectorServer::Shared::accept() {
    acceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
        if (!acceptor.is_open()) {
            return;
        }
        if (!error) {
            if (connectionCount >= maxInspectorConnections) {
                beast::error_code ignored;
                socket.close(ignored);
            } else {
                auto connection = std::make_shared<HttpConnection>(std::move(socket), *this);
                track(connection);
                connection->run();
            }
        }
        accept();
    });
}

InspectorServer::InspectorServer(const InspectorServerOptions& options, ZvuMessageDispatcher& loop,
                                 std::weak_ptr<InspectorBackend> backend)
    : shared(std::make_shared<Shared>(options, loop, std::move(backend))) {
    beast::error_code error;
    const auto address = asio::ip::make_address(options.bind, error);
    if (error) {
        throw std::runtime_error("not an address to listen on: \"" + options.bind + "\"");
    }
    const tcp::endpoint endpoint(address, options.port);
    shared->acceptor.open(endpoint.protocol(), error);
    if (!error)
        shared->acceptor.set_option(asio::socket_base::reuse_address(true), error);
    if (!error)
        shared->acceptor.bind(endpoint, error);
    if (!error)
        shared->acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        throw std::runtime_error("cannot listen on " + options.bind + ":" + std::to_string(options.port) + ": " +
                                 error.message());
    }
    shared->accept();
    thread = std::thread([shared = shared]() { shared->io.run(); });
}

InspectorServer::~InspectorServer() {
    // Everything is closed on the server's thread; once nothing is under
    // way there, its loop ends by itself.
    asio::post(shared->io, [shared = shared]() {
        beast::error_code ignored;
        shared->acceptor.close(ignored);
        for (const auto& weak : shared->connections) {
            if (const auto connection = weak.lock()) {
                connection->shutdown();
            }
        }
        shared->waiting.clear();
        shared->work.reset();
    });
    thread.join();
}

std::string InspectorServer::url() const {
    const tcp::endpoint endpoint = shared->acceptor.local_endpoint();
    std::string host = endpoint.address().to_string();
    if (endpoint.address().is_v6()) {
        host = "[" + host + "]";
    }
    return "http://" + host + ":" + std::to_string(endpoint.port()) + "/";
}

std::string findInspectorPage() {
    const std::string installed = programDirectory() + "/../share/zarvo-host/inspector";
    if (isDirectory(installed)) {
        return installed;
    }
#ifdef ZARVO_HOST_INSPECTOR_SOURCE_DIR
    if (isDirectory(ZARVO_HOST_INSPECTOR_SOURCE_DIR)) {
        return ZARVO_HOST_INSPECTOR_SOURCE_DIR;
    }
#endif
    return std::string();
}

namespace {

void appendToString(png_structp png, png_bytep data, png_size_t length) {
    auto* out = static_cast<std::string*>(png_get_io_ptr(png));
    out->append(reinterpret_cast<const char*>(data), length);
}

void flushNothing(png_structp) {}

}  // namespace

std::string encodePng(const TexturePixels& texture) {
    static const int colourTypes[] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                                      PNG_COLOR_TYPE_RGB_ALPHA};
    const auto channels = static_cast<std::size_t>(texture.channels);
    const std::size_t rowBytes = texture.width * channels;
    if (channels < 1 || channels > 4 || texture.pixels.size() < rowBytes * texture.height) {
        throw std::runtime_error("texture pixels do not match its size");
    }
    std::vector<std::uint8_t> pixels = texture.pixels;
    if (texture.premultiplied && (channels == 2 || channels == 4)) {
        // The page shows straight colour: undo the engine's premultiplication.
        for (std::size_t i = 0; i + channels <= pixels.size(); i += channels) {
            const unsigned alpha = pixels[i + channels - 1];
            for (std::size_t c = 0; c + 1 < channels && alpha != 0; ++c) {
                pixels[i + c] = static_cast<std::uint8_t>(std::min(255u, (pixels[i + c] * 255u + alpha / 2) / alpha));
            }
        }
    }
    std::string out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
        throw std::runtime_error("the PNG encoder failed");
    }
    png_set_write_fn(png, &out, &appendToString, &flushNothing);
    png_set_IHDR(png, info, texture.width, texture.height, 8, colourTypes[channels], PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (std::uint32_t row = 0; row < texture.height; ++row) {
        png_write_row(png, pixels.data() + row * rowBytes);
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

}  // namespace zarvo::host
