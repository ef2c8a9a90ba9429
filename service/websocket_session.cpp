#include "websocket_session.h"

#include <tethrix/protocol/codec.h>
#include <tethrix/protocol/result_frame.h>

#include <boost/asio/dispatch.hpp>

#include <cstdio>

namespace tethrix::service {

namespace beast = boost::beast;
namespace websocket = beast::websocket;

WebSocketSession::WebSocketSession(beast::tcp_stream&& stream, ConnectionSlot slot, ServiceContext& context)
    : socket(std::move(stream)),
      context(context),
      slot(std::move(slot)),
      stuckTimer(context.io) {}

WebSocketSession::~WebSocketSession() {
    end();
}

void WebSocketSession::run(HttpRequest request) {
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = context.limits.requestTimeout;
    // A silent peer is pinged at half the idle time and dropped at its end;
    // a client that answers pings stays however long it is quiet.
    timeouts.idle_timeout = context.limits.idleTimeout;
    timeouts.keep_alive_pings = true;
    socket.set_option(timeouts);
    socket.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(beast::http::field::server, "tethrix-service"); }));
    socket.read_message_max(protocol::maxRequestFrameBytes);
    socket.async_accept(request, beast::bind_front_handler(&WebSocketSession::onAccept, shared_from_this()));
}

void WebSocketSession::shutdown() {
    if (ended || closing)
        return;
    closeAfterWrites(websocket::close_code::going_away);
}

void WebSocketSession::onAccept(beast::error_code error) {
    if (error)
        return end();
    socket.text(true);
    readNext();
}

void WebSocketSession::readNext() {
    socket.async_read(buffer, beast::bind_front_handler(&WebSocketSession::onRead, shared_from_this()));
}

void WebSocketSession::onRead(beast::error_code error, std::size_t) {
    // Closed by the client, too large a frame (Beast has closed with 1009),
    // a broken connection or our own shutdown: the session is over.
    if (error)
        return end();
    if (!socket.got_text()) {
        sendError(std::nullopt, "binary frames are not accepted; send JSON text");
    } else {
        auto data = buffer.cdata();
        handleFrame(std::string_view(static_cast<const char*>(data.data()), data.size()));
    }
    buffer.consume(buffer.size());
    if (!closing)
        resumeReading();
}

void WebSocketSession::resumeReading() {
    // Back-pressure: a client that does not take its answers is not asked
    // for more requests until it does.
    paused = outboxBytes >= context.limits.sessionOutboxBytes;
    if (!paused)
        readNext();
}

void WebSocketSession::watchStuck() {
    // Past the bound, each answer taken gives the client another while to
    // take the next; one that takes none in that while is dropped.
    if (outboxBytes < context.limits.sessionOutboxBytes) {
        stuckTimer.cancel();
        return;
    }
    stuckTimer.expires_after(context.limits.stuckTimeout);
    stuckTimer.async_wait(beast::bind_front_handler(&WebSocketSession::onStuck, shared_from_this()));
}

void WebSocketSession::onStuck(beast::error_code error) {
    if (error || ended || outboxBytes < context.limits.sessionOutboxBytes)
        return;
    drop(std::to_string(outboxBytes) + " bytes of answers not taken for " +
         std::to_string(context.limits.stuckTimeout.count()) + " ms");
}

void WebSocketSession::drop(const std::string& why) {
    beast::error_code error;
    auto peer = beast::get_lowest_layer(socket).socket().remote_endpoint(error);
    std::fprintf(stderr, "tethrix-service: closing the connection of %s:%u: %s\n",
                 error ? "?" : peer.address().to_string().c_str(), error ? 0u : static_cast<unsigned>(peer.port()),
                 why.c_str());
    end();
    beast::get_lowest_layer(socket).socket().close(error);
}

void WebSocketSession::handleFrame(std::string_view frame) {
    protocol::Decoded decoded = protocol::decode(frame);
    if (!decoded)
        return sendError(decoded.error.id, decoded.error.reason);
    protocol::Message& message = *decoded.message;

    if (auto* hello = std::get_if<protocol::Hello>(&message))
        return onHello(*hello);
    if (!greeted) {
        std::optional<protocol::RequestId> id;
        if (auto* query = std::get_if<protocol::Query>(&message))
            id = query->id;
        if (auto* subscribe = std::get_if<protocol::Subscribe>(&message))
            id = subscribe->id;
        return sendError(id, "hello expected first");
    }
    if (auto* query = std::get_if<protocol::Query>(&message))
        return onQuery(std::move(*query));
    if (auto* cancel = std::get_if<protocol::Cancel>(&message))
        return onCancel(*cancel);
    if (auto* subscribe = std::get_if<protocol::Subscribe>(&message))
        return onSubscribe(*subscribe);
    if (auto* unsubscribe = std::get_if<protocol::Unsubscribe>(&message))
        return onUnsubscribe(*unsubscribe);
    if (auto* ping = std::get_if<protocol::Ping>(&message))
        return send(protocol::encode(protocol::Pong{ping->id}));
    sendError(std::nullopt, std::string("unexpected message \"") + protocol::typeName(message) + "\" from a client");
}

void WebSocketSession::onHello(const protocol::Hello& hello) {
    if (greeted)
        return sendError(std::nullopt, "unexpected message \"hello\" from a client");
    if (hello.version != protocol::protocolVersion) {
        sendError(std::nullopt, "unsupported protocol version " + std::to_string(hello.version) +
                                    "; this service speaks " + std::to_string(protocol::protocolVersion));
        return closeAfterWrites(websocket::close_code::protocol_error);
    }
    greeted = true;
    protocol::Hello answer;
    answer.software = "tethrix-service";
    // Another format than the one known is answered in JSON, which every
    // client reads.
    binaryResults = hello.resultFormat == protocol::binaryResultFormat;
    if (binaryResults)
        answer.resultFormat = protocol::binaryResultFormat;
    if (context.files.hasRoot()) {
        beast::error_code error;
        auto local = beast::get_lowest_layer(socket).socket().local_endpoint(error);
        if (!error) {
            std::string host = local.address().to_string();
            if (local.address().is_v6())
                host = "[" + host + "]";
            answer.filesBaseUrl = "http://" + host + ":" + std::to_string(local.port()) + "/";
        }
    }
    send(protocol::encode(answer));
}

bool WebSocketSession::admit(protocol::RequestId id) {
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

void WebSocketSession::onQuery(protocol::Query query) {
    if (!admit(query.id))
        return;
    auto flag = std::make_shared<std::atomic<bool>>(false);
    openQueries.emplace(query.id, flag);
    // The answer comes back on a query thread and is carried over to the
    // network thread, by then the session may be gone; or, read ahead, it
    // comes at once on the network thread and goes out before submit returns.
    auto& io = context.io;
    std::weak_ptr<WebSocketSession> weak = shared_from_this();
    context.worker.submit(this, std::move(query), binaryResults, flag, [&io, weak, flag](QueryAnswer answer) {
        boost::asio::dispatch(io, [weak, flag, answer = std::move(answer)]() mutable {
            if (auto self = weak.lock())
                self->onAnswer(std::move(answer), flag);
        });
    });
}

void WebSocketSession::onAnswer(QueryAnswer answer, const CancelFlag& flag) {
    // A cancelled query's id may have been taken by a new query since; only
    // the query that this answer belongs to may be answered.
    auto open = openQueries.find(answer.id);
    if (open == openQueries.end() || open->second != flag)
        return;
    openQueries.erase(open);
    send(std::move(answer.frame), answer.binary);
}

void WebSocketSession::onCancel(const protocol::Cancel& cancel) {
    auto open = openQueries.find(cancel.id);
    if (open == openQueries.end())
        return;
    open->second->store(true);
    openQueries.erase(open);
}

void WebSocketSession::onSubscribe(const protocol::Subscribe& subscribe) {
    if (!admit(subscribe.id))
        return;
    subscriptions.insert(subscribe.id);
    if (auto refusal = context.runtimeData.subscribe(*this, subscribe.id, subscribe.uri)) {
        subscriptions.erase(subscribe.id);
        sendError(subscribe.id, *refusal);
    }
}

void WebSocketSession::onUnsubscribe(const protocol::Unsubscribe& unsubscribe) {
    if (subscriptions.erase(unsubscribe.id) == 0)
        return;
    context.runtimeData.unsubscribe(*this, unsubscribe.id);
}

void WebSocketSession::deliverUpdate(protocol::RequestId id, const std::string& address, const std::string& data) {
    if (!subscriptions.count(id))
        return;
    send(protocol::encode(protocol::Update{id, address, data}));
}

void WebSocketSession::sendError(std::optional<protocol::RequestId> id, std::string reason) {
    protocol::Error error;
    error.id = id;
    error.reason = std::move(reason);
    send(protocol::encode(error));
}

void WebSocketSession::send(std::string frame, bool binary) {
    if (ended || closing)
        return;
    const bool wasBelow = outboxBytes < context.limits.sessionOutboxBytes;
    outboxBytes += frame.size();
    outbox.push_back(Outgoing{std::move(frame), binary});
    if (wasBelow)
        watchStuck();
    // Reading stopped at the bound; what passes it by more than a result
    // frame came from requests already under way, of a client that asked
    // for more than it reads.
    if (outboxBytes > context.limits.sessionOutboxBytes + protocol::maxResultFrameBytes) {
        return drop(std::to_string(outboxBytes) + " bytes of answers waiting, past the bound of " +
                    std::to_string(context.limits.sessionOutboxBytes) + " (--max-session-buffer)");
    }
    if (!writing)
        writeNext();
}

void WebSocketSession::writeNext() {
    if (outbox.empty()) {
        writing = false;
        if (closing && !ended) {
            socket.async_close(*closing, [self = shared_from_this()](beast::error_code) { self->end(); });
        }
        return;
    }
    writing = true;
    socket.binary(outbox.front().binary);
    socket.async_write(boost::asio::buffer(outbox.front().frame),
                       beast::bind_front_handler(&WebSocketSession::onWrite, shared_from_this()));
}

void WebSocketSession::onWrite(beast::error_code error, std::size_t) {
    if (error || ended)
        return end();
    outboxBytes -= outbox.front().frame.size();
    outbox.pop_front();
    watchStuck();
    if (paused && !closing)
        resumeReading();
    writeNext();
}

void WebSocketSession::closeAfterWrites(websocket::close_code code) {
    closing = code;
    if (!writing)
        writeNext();
}

void WebSocketSession::end() {
    if (ended)
        return;
    ended = true;
    for (auto& open : openQueries)
        open.second->store(true);
    openQueries.clear();
    context.worker.forget(this);
    if (!subscriptions.empty())
        context.runtimeData.unsubscribeAll(*this);
    subscriptions.clear();
    // A write under way still reads its frame; the frames go with the
    // session.
    if (!writing)
        outbox.clear();
    outboxBytes = 0;
    paused = false;
    stuckTimer.cancel();
}

}  // namespace tethrix::service
