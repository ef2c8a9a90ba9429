// One client connection: reads protocol frames, hands queries to the worker,
// and writes answers, pongs and updates in the order they are ready.
//
// What waits to be written is bounded (ServiceLimits::sessionOutboxBytes):
// past the bound the session stops reading requests until the client has
// taken its answers, and closes the connection if the client stays stuck
// or the answers already on their way pass the bound by a result frame.
#ifndef TETHRIX_SERVICE_WEBSOCKET_SESSION_H
#define TETHRIX_SERVICE_WEBSOCKET_SESSION_H

#include "file_server.h"
#include "query_worker.h"
#include "runtime_data.h"
#include "session_registry.h"

#include <tethrix/protocol/messages.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace tethrix::service {

/// Requests one connection may have open at a time; keeps one client from
/// queueing unbounded work.
constexpr std::size_t maxOpenRequests = 256;

class WebSocketSession final : public std::enable_shared_from_this<WebSocketSession>, private RuntimeDataSubscriber {
public:
    WebSocketSession(boost::beast::tcp_stream&& stream, ConnectionSlot slot, ServiceContext& context);
    ~WebSocketSession();

    /// Completes the upgrade that `request` asked for and starts reading.
    void run(HttpRequest request);
    /// Closes the connection with "going away", as the service stops.
    void shutdown();

private:
    void onAccept(boost::beast::error_code error);
    void readNext();
    void onRead(boost::beast::error_code error, std::size_t bytes);
    void handleFrame(std::string_view frame);

    void onHello(const protocol::Hello& hello);
    void onQuery(protocol::Query query);
    void onCancel(const protocol::Cancel& cancel);
    void onSubscribe(const protocol::Subscribe& subscribe);
    void onUnsubscribe(const protocol::Unsubscribe& unsubscribe);
    void onAnswer(QueryAnswer answer, const CancelFlag& flag);
    void deliverUpdate(protocol::RequestId id, const std::string& address, const std::string& data) override;

    /// Refuses a request whose id is taken or that is one too many.
    bool admit(protocol::RequestId id);
    void sendError(std::optional<protocol::RequestId> id, std::string reason);
    void send(std::string frame, bool binary = false);
    void writeNext();
    void onWrite(boost::beast::error_code error, std::size_t bytes);
    void closeAfterWrites(boost::beast::websocket::close_code code);
    /// Reads the next request unless the outbox is past its bound.
    void resumeReading();
    /// Starts or ends the wait after which a client that takes no answers
    /// is dropped.
    void watchStuck();
    void onStuck(boost::beast::error_code error);
    /// Closes the connection at once, saying why on standard error.
    void drop(const std::string& why);
    void end();

    boost::beast::websocket::stream<boost::beast::tcp_stream> socket;
    ServiceContext& context;
    ConnectionSlot slot;
    boost::beast::flat_buffer buffer;
    struct Outgoing {
        std::string frame;
        bool binary = false;
    };
    std::deque<Outgoing> outbox;
    std::size_t outboxBytes = 0;
    /// No read is pending, because the outbox is past its bound.
    bool paused = false;
    boost::asio::steady_timer stuckTimer;
    bool writing = false;
    bool greeted = false;
    /// The client asked for results as binary frames.
    bool binaryResults = false;
    bool ended = false;
    std::optional<boost::beast::websocket::close_code> closing;
    std::map<protocol::RequestId, CancelFlag> openQueries;
    std::set<protocol::RequestId> subscriptions;
};

}  // namespace tethrix::service

#endif
