#include <zarvo/client/network_transport.h>

#include <tethrix/protocol/codec.h>
#include <tethrix/protocol/result_frame.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <zarvo/log.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <deque>
#include <iomanip>
#include <limits>
#include <set>
#include <sstream>
#include <thread>

namespace zarvo {
namespace client {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace protocol = tethrix::protocol;
using tcp = asio::ip::tcp;

namespace {

constexpr std::chrono::seconds closeTimeout{1};
const char* const logCategory = "tethrix-client";

// The client's value types are int and float, as ContentResult holds them.
// A number of the service beyond their range becomes the nearest value they
// hold (docs/service.md); converting it as it is would be undefined.
int narrowInteger(std::int64_t value, bool& clamped) {
    if (value > std::numeric_limits<int>::max()) {
        clamped = true;
        return std::numeric_limits<int>::max();
    }
    if (value < std::numeric_limits<int>::min()) {
        clamped = true;
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(value);
}

float narrowReal(double value, bool& clamped) {
    // Infinities and NaN have their float; finite values past the largest
    // float have none.
    if (value > std::numeric_limits<float>::max() && !std::isinf(value)) {
        clamped = true;
        return std::numeric_limits<float>::max();
    }
    if (value < std::numeric_limits<float>::lowest() && !std::isinf(value)) {
        clamped = true;
        return std::numeric_limits<float>::lowest();
    }
    return static_cast<float>(value);
}

std::string shownNumber(double value) {
    std::ostringstream text;
    text << std::setprecision(17) << value;
    return text.str();
}

/// Appends the cells of one answer to a QueryResult in the client's value
/// types, warning once for each column whose values had to be narrowed, so
/// that a table full of such values gives a line and not a flood.
class CellConverter {
public:
    CellConverter(QueryResult& result, const std::vector<protocol::Column>& columns, protocol::RequestId id)
        : result(result),
          columns(columns),
          id(id),
          told(columns.size(), false) {}

    void integer(std::size_t column, std::int64_t value) {
        bool clamped = false;
        result.cells.pushInteger(narrowInteger(value, clamped));
        if (clamped) {
            tell(column, std::to_string(value), "32-bit int");
        }
    }

    void real(std::size_t column, double value) {
        bool clamped = false;
        result.cells.pushFloat(narrowReal(value, clamped));
        if (clamped) {
            tell(column, shownNumber(value), "float");
        }
    }

    void boolean(bool value) { result.cells.pushBool(value); }
    void text(std::string_view value) { result.cells.pushString(value.data(), value.size()); }

private:
    void tell(std::size_t column, const std::string& given, const char* type) {
        if (column >= told.size() || told[column]) {
            return;
        }
        told[column] = true;
        ZARVO_LOG_WARNING(logCategory,
                          "Column '{}' of the answer to query {} holds {}, beyond the range of the client's "
                          "{}; it is delivered as the nearest value in range",
                          columns[column].name, id, given, type);
    }

    QueryResult& result;
    const std::vector<protocol::Column>& columns;
    protocol::RequestId id;
    std::vector<bool> told;
};

void copyColumns(QueryResult& converted, const std::vector<protocol::Column>& columns) {
    converted.columns.reserve(columns.size());
    for (const auto& column : columns) {
        converted.columns.push_back({column.name, static_cast<ContentDataType>(static_cast<int>(column.type))});
    }
}

QueryResult toQueryResult(protocol::Result&& result) {
    QueryResult converted;
    converted.startIndex = static_cast<std::size_t>(result.startIndex);
    copyColumns(converted, result.columns);
    converted.cells.reserve(result.rows.size() * result.columns.size());
    CellConverter cells(converted, result.columns, result.id);
    for (auto& row : result.rows) {
        for (std::size_t c = 0; c < row.size(); ++c) {
            auto& cell = row[c];
            if (auto* i = std::get_if<std::int64_t>(&cell)) {
                cells.integer(c, *i);
            } else if (auto* d = std::get_if<double>(&cell)) {
                cells.real(c, *d);
            } else if (auto* b = std::get_if<bool>(&cell)) {
                cells.boolean(*b);
            } else {
                cells.text(std::get<std::string>(cell));
            }
        }
    }
    return converted;
}

/// A binary result frame read cell by cell straight into the client's
/// values; false, with the reader's reason, if the frame is not sound.
bool readResultFrame(protocol::ResultFrameReader& reader, QueryResult& converted) {
    converted.startIndex = static_cast<std::size_t>(reader.startIndex());
    const auto& columns = reader.columns();
    copyColumns(converted, columns);
    converted.cells.reserve(std::size_t{reader.rowCount()} * columns.size(), reader.remaining());
    CellConverter cells(converted, columns, reader.id());
    for (std::uint32_t r = 0; r < reader.rowCount(); ++r) {
        for (std::size_t c = 0; c < columns.size(); ++c) {
            bool read = false;
            switch (columns[c].type) {
            case protocol::ColumnType::integer: {
                std::int64_t value = 0;
                read = reader.integer(value);
                if (read) {
                    cells.integer(c, value);
                }
                break;
            }
            case protocol::ColumnType::real: {
                double value = 0;
                read = reader.real(value);
                if (read) {
                    cells.real(c, value);
                }
                break;
            }
            case protocol::ColumnType::boolean: {
                bool value = false;
                read = reader.boolean(value);
                if (read) {
                    cells.boolean(value);
                }
                break;
            }
            case protocol::ColumnType::text: {
                std::string_view chars;
                read = reader.text(chars);
                if (read) {
                    cells.text(chars);
                }
                break;
            }
            }
            if (!read) {
                return false;
            }
        }
    }
    return reader.finish();
}

}  // namespace

std::optional<NetworkTransportOptions> parseServiceUrl(const std::string& url) {
    std::string rest = url;
    const std::string scheme = "ws://";
    if (rest.compare(0, scheme.size(), scheme) == 0) {
        rest = rest.substr(scheme.size());
    }
    NetworkTransportOptions options;
    auto slash = rest.find('/');
    if (slash != std::string::npos) {
        options.path = rest.substr(slash);
        rest = rest.substr(0, slash);
    }
    auto colon = rest.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return std::nullopt;
    }
    options.host = rest.substr(0, colon);
    if (options.host.size() > 2 && options.host.front() == '[' && options.host.back() == ']') {
        options.host = options.host.substr(1, options.host.size() - 2);
    }
    unsigned port = 0;
    const char* begin = rest.data() + colon + 1;
    const char* end = rest.data() + rest.size();
    auto parsed = std::from_chars(begin, end, port);
    if (parsed.ec != std::errc() || parsed.ptr != end || port == 0 || port > 65535) {
        return std::nullopt;
    }
    options.port = static_cast<unsigned short>(port);
    return options;
}

/// Everything that happens on the I/O thread. Public operations only post
/// work to it; all members below are touched on that thread alone.
class NetworkTransport::Link : public std::enable_shared_from_this<Link> {
public:
    explicit Link(NetworkTransportOptions options)
        : options(std::move(options)),
          work(asio::make_work_guard(io)),
          resolver(io),
          retryTimer(io),
          helloTimer(io),
          backlogTimer(io),
          reconnectDelay(this->options.firstReconnectDelay) {}

    void start(std::shared_ptr<TransportReceiver> newReceiver) {
        receiver = std::move(newReceiver);
        // A loop that already waits for another connection leaves this
        // one to a thread of its own.
        if (options.loop == nullptr || !joinLoop()) {
            thread = std::thread([this] { io.run(); });
        }
        post([](Link& link) { link.connect(); });
    }

    /// Ends every operation so that the thread runs out of work and ends;
    /// on the loop, runs them to their end here.
    void stop() {
        if (joined) {
            options.loop->clearExternalWait(joined.get());
            joined.reset();
            shutDown();
            io.restart();
            io.run();
            return;
        }
        post([](Link& link) { link.shutDown(); });
        if (thread.joinable()) {
            thread.join();
        }
    }

    /// Work from the transport's operations. On the loop they are called on
    /// the loop's thread, which is this connection's own.
    template <typename Work>
    void post(Work work) {
        if (joined) {
            work(*this);
            return;
        }
        asio::post(io, [self = shared_from_this(), work = std::move(work)]() mutable { work(*self); });
    }

    void sendQuery(std::uint64_t id, protocol::Query query) {
        if (!up) {
            return receiver->onQueryError(id, "not connected to the service");
        }
        std::string frame = protocol::encode(query);
        if (!fits(frame)) {
            return receiver->onQueryError(id, tooMuchWaiting);
        }
        openQueries.insert(id);
        send(std::move(frame));
    }

    void cancelQuery(std::uint64_t id) {
        if (openQueries.erase(id) != 0 && up) {
            send(protocol::encode(protocol::Cancel{id}));
        }
    }

    void subscribe(std::uint64_t id, const std::string& uri) {
        if (!up) {
            return receiver->onSubscriptionError(id, "not connected to the service");
        }
        std::string frame = protocol::encode(protocol::Subscribe{id, uri});
        if (!fits(frame)) {
            return receiver->onSubscriptionError(id, tooMuchWaiting);
        }
        subscriptions.insert(id);
        send(std::move(frame));
    }

    void unsubscribe(std::uint64_t id) {
        if (subscriptions.erase(id) != 0 && up) {
            send(protocol::encode(protocol::Unsubscribe{id}));
        }
    }

private:
    /// One connection attempt and what belongs to it alone. Every
    /// completion holds its attempt, so that an attempt that was given up
    /// lives until its last operation is done.
    struct Attempt {
        explicit Attempt(asio::io_context& io) : socket(io) {}
        websocket::stream<beast::tcp_stream> socket;
        beast::flat_buffer buffer;
        std::deque<std::string> outbox;
        std::size_t outboxBytes = 0;
        bool writing = false;
    };

    static constexpr const char* tooMuchWaiting = "too much waiting to be sent to the service";

    /// Whether a request may join what waits to be sent: a service that
    /// reads nothing must not make the client keep every request.
    bool fits(const std::string& frame) const {
        return current->outboxBytes + frame.size() <= options.maxPendingSendBytes;
    }

    void connect() {
        if (stopping) {
            return;
        }
        current = std::make_shared<Attempt>(io);
        resolver.async_resolve(
            options.host, std::to_string(options.port),
            [self = shared_from_this(), attempt = current](beast::error_code error, tcp::resolver::results_type found) {
                if (self->isCurrent(attempt, error)) {
                    self->onResolved(found);
                }
            });
    }

    /// Whether a completion still belongs to the live attempt; fails the
    /// attempt on an error.
    bool isCurrent(const std::shared_ptr<Attempt>& attempt, const beast::error_code& error) {
        if (stopping || attempt != current) {
            return false;
        }
        if (error) {
            fail();
            return false;
        }
        return true;
    }

    void onResolved(const tcp::resolver::results_type& found) {
        beast::get_lowest_layer(current->socket).expires_after(options.handshakeTimeout);
        beast::get_lowest_layer(current->socket)
            .async_connect(
                found, [self = shared_from_this(), attempt = current](beast::error_code error, const tcp::endpoint&) {
                    if (self->isCurrent(attempt, error)) {
                        self->onConnected();
                    }
                });
    }

    void onConnected() {
        beast::get_lowest_layer(current->socket).expires_never();
        // A query goes out at once, not held back until the previous one
        // is acknowledged.
        beast::error_code ignored;
        beast::get_lowest_layer(current->socket).socket().set_option(tcp::no_delay(true), ignored);
        websocket::stream_base::timeout timeouts{};
        timeouts.handshake_timeout = options.handshakeTimeout;
        timeouts.idle_timeout = options.idleTimeout;
        timeouts.keep_alive_pings = true;
        current->socket.set_option(timeouts);
        current->socket.read_message_max(protocol::maxResultFrameBytes);
        current->socket.async_handshake(options.host + ":" + std::to_string(options.port), options.path,
                                        [self = shared_from_this(), attempt = current](beast::error_code error) {
                                            if (self->isCurrent(attempt, error)) {
                                                self->onHandshake();
                                            }
                                        });
    }

    void onHandshake() {
        current->socket.text(true);
        // Results come as binary frames: no text to write and parse, and
        // their cells are read straight into the client's values.
        send(protocol::encode(
            protocol::Hello{protocol::protocolVersion, "zarvo client library", "", protocol::binaryResultFormat}));
        // A peer that answers pings but never says hello (or says it in
        // another version) would otherwise hold the transport down for ever.
        helloTimer.expires_after(options.helloTimeout);
        helloTimer.async_wait([self = shared_from_this(), attempt = current](beast::error_code error) {
            if (!error && !self->stopping && attempt == self->current && !self->up) {
                self->fail();
            }
        });
        read();
    }

    void read() {
        current->buffer.consume(current->buffer.size());
        current->socket.async_read(
            current->buffer, [self = shared_from_this(), attempt = current](beast::error_code error, std::size_t) {
                if (self->isCurrent(attempt, error)) {
                    self->onFrame();
                }
            });
    }

    void onFrame() {
        auto data = current->buffer.cdata();
        const std::string_view frame(static_cast<const char*>(data.data()), data.size());
        if (current->socket.got_binary()) {
            onResultFrame(frame);
        } else {
            onTextFrame(frame);
        }
        if (current) {
            readWhenTheLoopKeepsUp();
        }
    }

    void onResultFrame(std::string_view frame) {
        protocol::ResultFrameReader reader;
        if (!reader.open(frame)) {
            if (auto id = protocol::ResultFrameReader::peekId(frame)) {
                failRequest(*id, "unreadable answer: " + reader.error());
            }
            return;
        }
        if (openQueries.count(reader.id()) == 0) {
            return;
        }
        QueryResult result;
        if (!readResultFrame(reader, result)) {
            return failRequest(reader.id(), "unreadable answer: " + reader.error());
        }
        openQueries.erase(reader.id());
        receiver->onQueryResult(reader.id(), std::move(result));
    }

    void onTextFrame(std::string_view frame) {
        protocol::Decoded decoded = protocol::decode(frame, protocol::maxResultFrameBytes);
        if (decoded) {
            handle(std::move(*decoded.message));
        } else if (decoded.error.id) {
            failRequest(*decoded.error.id, "unreadable answer: " + decoded.error.reason);
        }
    }

    /// Back-pressure: while the loop has many reports still to take, the
    /// next frame stays in the socket (and the service's buffers) instead
    /// of in memory here.
    void readWhenTheLoopKeepsUp() {
        if (receiver->pendingReports() < options.maxPendingReports) {
            return read();
        }
        backlogTimer.expires_after(std::chrono::milliseconds(5));
        backlogTimer.async_wait([self = shared_from_this(), attempt = current](beast::error_code error) {
            if (!error && !self->stopping && attempt == self->current) {
                self->readWhenTheLoopKeepsUp();
            }
        });
    }

    void handle(protocol::Message&& message) {
        if (auto* hello = std::get_if<protocol::Hello>(&message)) {
            return onHello(*hello);
        }
        if (auto* result = std::get_if<protocol::Result>(&message)) {
            if (openQueries.erase(result->id) != 0) {
                receiver->onQueryResult(result->id, toQueryResult(std::move(*result)));
            }
            return;
        }
        if (auto* error = std::get_if<protocol::Error>(&message)) {
            if (error->id) {
                failRequest(*error->id, error->reason);
            }
            return;
        }
        if (auto* update = std::get_if<protocol::Update>(&message)) {
            if (subscriptions.count(update->id) != 0) {
                receiver->onRuntimeUpdate(update->id, std::move(update->address), std::move(update->data));
            }
        }
    }

    void onHello(const protocol::Hello& hello) {
        if (up || hello.version != protocol::protocolVersion) {
            return;
        }
        helloTimer.cancel();
        up = true;
        upSince = std::chrono::steady_clock::now();
        reportedLost = false;
        receiver->onResourceBaseUrl(hello.filesBaseUrl);
        receiver->onConnectionState(Connection::StateConnected);
    }

    void failRequest(std::uint64_t id, const std::string& reason) {
        if (openQueries.erase(id) != 0) {
            receiver->onQueryError(id, reason);
        } else if (subscriptions.erase(id) != 0) {
            receiver->onSubscriptionError(id, reason);
        }
    }

    void send(std::string frame) {
        current->outboxBytes += frame.size();
        current->outbox.push_back(std::move(frame));
        if (!current->writing) {
            writeNext();
        }
    }

    void writeNext() {
        if (current->outbox.empty()) {
            current->writing = false;
            return;
        }
        current->writing = true;
        current->socket.async_write(
            asio::buffer(current->outbox.front()),
            [self = shared_from_this(), attempt = current](beast::error_code error, std::size_t) {
                if (!self->isCurrent(attempt, error)) {
                    return;
                }
                attempt->outboxBytes -= attempt->outbox.front().size();
                attempt->outbox.pop_front();
                self->writeNext();
            });
    }

    /// The connection broke or could not be made: everything open fails,
    /// the loss is reported once, and a new attempt follows after a while.
    void fail() {
        dropConnection();
        helloTimer.cancel();
        bool wasUp = up;
        up = false;
        if (wasUp && std::chrono::steady_clock::now() - upSince >= options.stableAfter) {
            reconnectDelay = options.firstReconnectDelay;
        }
        for (auto id : std::exchange(openQueries, {})) {
            receiver->onQueryError(id, "connection to the service lost");
        }
        for (auto id : std::exchange(subscriptions, {})) {
            receiver->onSubscriptionError(id, "connection to the service lost");
        }
        if (wasUp || !reportedLost) {
            reportedLost = true;
            receiver->onConnectionState(Connection::StateLost);
        }
        retryTimer.expires_after(reconnectDelay);
        reconnectDelay = std::min(reconnectDelay * 2, options.maxReconnectDelay);
        retryTimer.async_wait([self = shared_from_this()](beast::error_code error) {
            if (!error && !self->stopping) {
                self->connect();
            }
        });
    }

    void dropConnection() {
        resolver.cancel();
        if (!current) {
            return;
        }
        beast::error_code ignored;
        beast::get_lowest_layer(current->socket).socket().close(ignored);
        current.reset();
    }

    /// Has the loop wait in this connection's io_context: its socket and
    /// timers then wake the loop, and work posted to the loop interrupts the
    /// wait. False if the loop already waits for another. The functions
    /// reach the io_context through a weak pointer to this connection, as
    /// interrupt() may come from another thread while the connection goes.
    bool joinLoop() {
        auto external = std::make_shared<ZvuMessageDispatcher::ExternalWait>();
        std::weak_ptr<Link> weak = shared_from_this();
        external->wait = [weak](std::chrono::steady_clock::time_point until) {
            if (auto self = weak.lock()) {
                self->io.run_one_until(until);
            }
        };
        external->poll = [weak]() {
            auto self = weak.lock();
            return self && self->io.poll_one() != 0;
        };
        external->interrupt = [weak]() {
            if (auto self = weak.lock()) {
                asio::post(self->io, [] {});
            }
        };
        if (!options.loop->setExternalWait(external)) {
            return false;
        }
        joined = std::move(external);
        return true;
    }

    void shutDown() {
        stopping = true;
        retryTimer.cancel();
        helloTimer.cancel();
        backlogTimer.cancel();
        resolver.cancel();
        work.reset();
        if (!current || !up) {
            dropConnection();
            return;
        }
        // A polite close, bounded in time; the service then ends the session
        // at once instead of finding a broken connection. The bound is the
        // stream's own close timeout: a read is always pending, and a write
        // may be (an unsubscribe on the way out), and the TCP stream's timer
        // must not be moved under both.
        websocket::stream_base::timeout timeouts{};
        current->socket.get_option(timeouts);
        timeouts.handshake_timeout = closeTimeout;
        current->socket.set_option(timeouts);
        current->socket.async_close(websocket::close_code::going_away,
                                    [self = shared_from_this(), attempt = current](beast::error_code) {
                                        if (attempt == self->current) {
                                            self->dropConnection();
                                        }
                                    });
    }

    NetworkTransportOptions options;
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> work;
    tcp::resolver resolver;
    asio::steady_timer retryTimer;
    asio::steady_timer helloTimer;
    asio::steady_timer backlogTimer;
    std::thread thread;
    /// The loop's wait this connection runs in, if it runs on the loop.
    std::shared_ptr<const ZvuMessageDispatcher::ExternalWait> joined;
    std::shared_ptr<TransportReceiver> receiver;

    std::shared_ptr<Attempt> current;
    bool up = false;
    bool reportedLost = false;
    bool stopping = false;
    std::chrono::steady_clock::time_point upSince;
    std::chrono::milliseconds reconnectDelay;
    std::set<std::uint64_t> openQueries;
    std::set<std::uint64_t> subscriptions;
};

NetworkTransport::NetworkTransport(NetworkTransportOptions options) : options(std::move(options)) {}

NetworkTransport::~NetworkTransport() {
    detach();
}

void NetworkTransport::attach(std::shared_ptr<TransportReceiver> receiver) {
    detach();
    link = std::make_shared<Link>(options);
    link->start(std::move(receiver));
}

void NetworkTransport::detach() {
    if (!link) {
        return;
    }
    link->stop();
    link.reset();
}

void NetworkTransport::sendQuery(std::uint64_t, std::uint64_t queryId, const ContentQueryArguments& arguments) {
    if (!link) {
        return;
    }
    protocol::Query query{queryId,
                          arguments.getUri(),
                          arguments.getColumns(),
                          arguments.getFilter(),
                          arguments.getSort(),
                          arguments.getIndex(),
                          arguments.getCount()};
    link->post([queryId, query = std::move(query)](Link& l) mutable { l.sendQuery(queryId, std::move(query)); });
}

void NetworkTransport::cancelQuery(std::uint64_t queryId) {
    if (link) {
        link->post([queryId](Link& l) { l.cancelQuery(queryId); });
    }
}

void NetworkTransport::subscribeRuntimeData(std::uint64_t, std::uint64_t subscriptionId, const std::string& uri) {
    if (link) {
        link->post([subscriptionId, uri](Link& l) { l.subscribe(subscriptionId, uri); });
    }
}

void NetworkTransport::unsubscribe(std::uint64_t subscriptionId) {
    if (link) {
        link->post([subscriptionId](Link& l) { l.unsubscribe(subscriptionId); });
    }
}

}  // namespace client
}  // namespace zarvo
