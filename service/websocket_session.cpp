#include "websocket_session.h"

#include <tethrix/protocol/codec.h>

#include <boost/asio/post.hpp>

namespace tethrix::service {

namespace beast = boost::beast;
namespace websocket = beast::websocket;

WebSocketSession::WebSocketSession(beast::tcp_stream&& stream, ServiceContext& context)
    : socket(std::move(stream)), context(context)
{
}

WebSocketSession::~WebSocketSession()
{
    end();
}

void WebSocketSession::run(HttpRequest request)
{
    socket.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    socket.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(beast::http::field::server, "tethrix-service"); }));
    socket.read_message_max(protocol::maxRequestFrameBytes);
    socket.async_accept(request, beast::bind_front_handler(&WebSocketSession::onAccept, shared_from_this()));
}

void WebSocketSession::shutdown()
{
    if (ended || closing) return;
    closeAfterWrites(websocket::close_code::going_away);
}

void WebSocketSession::onAccept(beast::error_code error)
{
    if (error) return end();
    socket.text(true);
    readNext();
}

void WebSocketSession::readNext()
{
    socket.async_read(buffer, beast::bind_front_handler(&WebSocketSession::onRead, shared_from_this()));
}

void WebSocketSession::onRead(beast::error_code error, std::size_t)
{
    // Closed by the client, too large a frame (Beast has closed with 1009),
    // a broken connection or our own shutdown: the session is over.
    if (error) return end();
    if (!socket.got_text()) {
        sendError(std::nullopt, "binary frames are not accepted; send JSON text");
    } else {
        auto data = buffer.cdata();
        handleFrame(std::string_view(static_cast<const char*>(data.data()), data.size()));
    }
    buffer.consume(buffer.size());
    if (!closing) readNext();
}

void WebSocketSession::handleFrame(std::string_view frame)
{
    protocol::Decoded decoded = protocol::decode(frame);
    if (!decoded) return sendError(decoded.error.id, decoded.error.reason);
    protocol::Message& message = *decoded.message;

    if (auto* hello = std::get_if<protocol::Hello>(&message)) return onHello(*hello);
    if (!greeted) {
        std::optional<protocol::RequestId> id;
        if (auto* query = std::get_if<protocol::Query>(&message)) id = query->id;
        if (auto* subscribe = std::get_if<protocol::Subscribe>(&message)) id = subscribe->id;
        return sendError(id, "hello expected first");
    }
    if (auto* query = std::get_if<protocol::Query>(&message)) return onQuery(std::move(*query));
    if (auto* cancel = std::get_if<protocol::Cancel>(&message)) return onCancel(*cancel);
    if (auto* subscribe = std::get_if<protocol::Subscribe>(&message)) return onSubscribe(*subscribe);
    if (auto* unsubscribe = std::get_if<protocol::Unsubscribe>(&message)) return onUnsubscribe(*unsubscribe);
    if (auto* ping = std::get_if<protocol::Ping>(&message)) return send(protocol::encode(protocol::Pong{ping->id}));
    sendError(std::nullopt, std::string("unexpected message \"") + protocol::typeName(message) + "\" from a client");
}

void WebSocketSession::onHello(const protocol::Hello& hello)
{
    if (greeted) return sendError(std::nullopt, "unexpected message \"hello\" from a client");
    if (hello.version != protocol::protocolVersion) {
        sendError(std::nullopt, "unsupported protocol version " + std::to_string(hello.version) +
                                    "; this service speaks " + std::to_string(protocol::protocolVersion));
        return closeAfterWrites(websocket::close_code::protocol_error);
    }
    greeted = true;
    protocol::Hello answer;
    answer.software = "tethrix-service";
    if (context.files.hasRoot()) {
        beast::error_code error;
        auto local = beast::get_lowest_layer(socket).socket().local_endpoint(error);
        if (!error) {
            std::string host = local.address().to_string();
            if (local.address().is_v6()) host = "[" + host + "]";
            answer.filesBaseUrl = "http://" + host + ":" + std::to_string(local.port()) + "/";
        }
    }
    send(protocol::encode(answer));
}

bool WebSocketSession::admit(protocol::RequestId id)
{
    if (openQueries.count(id) || subscriptions.count(id)) {
        sendError(id, "request id " + std::to_string(id) + " is already in use");
        return false;
    }
    if (openQueries.size() + subscriptions.size() >= maxOpenRequests) {
        sendError(id, "too many open requests");
        return false;
    }
    return true;
}

void WebSocketSession::onQuery(protocol::Query query)
{
    if (!admit(query.id)) return;
    auto flag = std::make_shared<std::atomic<bool>>(false);
    openQueries.emplace(query.id, flag);
    // The answer comes back on the worker thread and is carried over to the
    // network thread; by then the session may be gone.
    auto& io = context.io;
    std::weak_ptr<WebSocketSession> weak = shared_from_this();
    context.worker.submit(std::move(query), flag, [&io, weak, flag](QueryAnswer answer) {
        boost::asio::post(io, [weak, flag, answer = std::move(answer)]() mutable {
            if (auto self = weak.lock()) self->onAnswer(std::move(answer), flag);
        });
    });
}

void WebSocketSession::onAnswer(QueryAnswer answer, const CancelFlag& flag)
{
    // A cancelled query's id may have been taken by a new query since; only
    // the query that this answer belongs to may be answered.
    auto open = openQueries.find(answer.id);
    if (open == openQueries.end() || open->second != flag) return;
    openQueries.erase(open);
    send(std::move(answer.frame));
}

void WebSocketSession::onCancel(const protocol::Cancel& cancel)
{
    auto open = openQueries.find(cancel.id);
    if (open == openQueries.end()) return;
    open->second->store(true);
    openQueries.erase(open);
}

void WebSocketSession::onSubscribe(const protocol::Subscribe& subscribe)
{
    if (!admit(subscribe.id)) return;
    subscriptions.insert(subscribe.id);
    if (auto refusal = context.runtimeData.subscribe(*this, subscribe.id, subscribe.uri)) {
        subscriptions.erase(subscribe.id);
        sendError(subscribe.id, *refusal);
    }
}

void WebSocketSession::onUnsubscribe(const protocol::Unsubscribe& unsubscribe)
{
    if (subscriptions.erase(unsubscribe.id) == 0) return;
    context.runtimeData.unsubscribe(*this, unsubscribe.id);
}

void WebSocketSession::deliverUpdate(protocol::RequestId id, const std::string& address, const std::string& data)
{
    if (!subscriptions.count(id)) return;
    send(protocol::encode(protocol::Update{id, address, data}));
}

void WebSocketSession::sendError(std::optional<protocol::RequestId> id, std::string reason)
{
    protocol::Error error;
    error.id = id;
    error.reason = std::move(reason);
    send(protocol::encode(error));
}

void WebSocketSession::send(std::string frame)
{
    if (ended || closing) return;
    outbox.push_back(std::move(frame));
    if (!writing) writeNext();
}

void WebSocketSession::writeNext()
{
    if (outbox.empty()) {
        writing = false;
        if (closing && !ended) {
            socket.async_close(*closing, [self = shared_from_this()](beast::error_code) { self->end(); });
        }
        return;
    }
    writing = true;
    socket.async_write(boost::asio::buffer(outbox.front()),
                       beast::bind_front_handler(&WebSocketSession::onWrite, shared_from_this()));
}

void WebSocketSession::onWrite(beast::error_code error, std::size_t)
{
    if (error) return end();
    outbox.pop_front();
    writeNext();
}

void WebSocketSession::closeAfterWrites(websocket::close_code code)
{
    closing = code;
    if (!writing) writeNext();
}

void WebSocketSession::end()
{
    if (ended) return;
    ended = true;
    for (auto& open : openQueries) open.second->store(true);
    openQueries.clear();
    if (!subscriptions.empty()) context.runtimeData.unsubscribeAll(*this);
    subscriptions.clear();
    outbox.clear();
}

}  // namespace tethrix::service
