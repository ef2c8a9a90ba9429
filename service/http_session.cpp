#include "http_session.h"

#include "runtime_endpoint.h"
#include "websocket_session.h"

#include <tethrix/protocol/messages.h>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <chrono>

namespace tethrix::service {

namespace beast = boost::beast;

namespace {

/// Requests for files carry no body; update text is published in one, up
/// to the size of a protocol frame.
constexpr std::uint64_t maxRequestBody = protocol::maxRequestFrameBytes;
/// Bytes of a file read and sent at a time.
constexpr std::size_t filePiece = 64 * 1024;

std::string_view pathOf(std::string_view target) {
    return target.substr(0, target.find_first_of("?#"));
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket&& socket, ServiceContext& context)
    : stream(std::move(socket)),
      context(context),
      slot(context) {}

void HttpSession::run() {
    readRequest();
}

bool HttpSession::evictIfWaiting() {
    if (!waiting)
        return false;
    waiting = false;
    beast::error_code ignored;
    stream.socket().close(ignored);
    return true;
}

void HttpSession::readRequest() {
    parser.emplace();
    parser->body_limit(maxRequestBody);
    waiting = true;
    stream.expires_after(context.limits.requestTimeout);
    http::async_read(stream, buffer, *parser, beast::bind_front_handler(&HttpSession::onRead, shared_from_this()));
}

void HttpSession::onRead(beast::error_code error, std::size_t) {
    waiting = false;
    if (error == http::error::end_of_stream)
        return close();
    if (error == http::error::body_limit)
        return refuseBody();
    if (error)
        return;  // timeout, reset, eviction or garbage: drop the connection
    HttpRequest request = parser->release();

    if (beast::websocket::is_upgrade(request)) {
        if (pathOf(request.target()) == protocol::webSocketPath && !context.shuttingDown) {
            return upgrade(std::move(request));
        }
        auto response = textResponse(request, http::status::not_found, "no WebSocket endpoint here");
        return beast::async_write(stream, std::move(response),
                                  beast::bind_front_handler(&HttpSession::onWrite, shared_from_this(), false));
    }
    bool keepAlive = request.keep_alive();
    const std::string_view path = pathOf(request.target());
    if (path != protocol::webSocketPath && !isRuntimePath(path))
        return serveFile(std::move(request));
    auto response = path == protocol::webSocketPath
                        ? textResponse(request, http::status::upgrade_required, "WebSocket endpoint")
                        : respondRuntime(request, path, context.runtimeData);
    beast::async_write(stream, std::move(response),
                       beast::bind_front_handler(&HttpSession::onWrite, shared_from_this(), keepAlive));
}

void HttpSession::refuseBody() {
    // The rest of the body is still on its way: answer and close.
    HttpRequest request = parser->release();
    request.keep_alive(false);
    auto response = textResponse(request, http::status::payload_too_large,
                                 "request body larger than " + std::to_string(maxRequestBody) + " bytes");
    beast::async_write(stream, std::move(response),
                       beast::bind_front_handler(&HttpSession::onWrite, shared_from_this(), false));
}

void HttpSession::upgrade(HttpRequest request) {
    stream.expires_never();
    auto session = std::make_shared<WebSocketSession>(std::move(stream), std::move(slot), context);
    auto& sessions = context.sessions;
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(), [](const auto& s) { return s.expired(); }),
                   sessions.end());
    sessions.push_back(session);
    session->run(std::move(request));
}

void HttpSession::serveFile(HttpRequest request) {
    auto& io = context.io;
    boost::asio::post(context.fileReaders, [self = shared_from_this(), &io, request = std::move(request)] {
        const bool keepAlive = request.keep_alive();
        auto reply = std::make_shared<FileServer::Reply>(self->context.files.respond(request));
        boost::asio::post(io, [self, reply, keepAlive] { self->sendFile(std::move(*reply), keepAlive); });
    });
}

void HttpSession::sendFile(FileServer::Reply reply, bool keepAlive) {
    file = std::move(reply.file);
    left = file ? reply.size : 0;
    stream.expires_after(context.limits.requestTimeout);
    beast::async_write(stream, std::move(reply.head),
                       [self = shared_from_this(), keepAlive](beast::error_code error, std::size_t bytes) {
                           if (error || !self->file)
                               return self->onWrite(keepAlive, error, bytes);
                           self->readPiece(keepAlive);
                       });
}

void HttpSession::readPiece(bool keepAlive) {
    auto& io = context.io;
    boost::asio::post(context.fileReaders, [self = shared_from_this(), &io, keepAlive] {
        self->piece.resize(static_cast<std::size_t>(std::min<std::uint64_t>(self->left, filePiece)));
        beast::error_code error;
        std::size_t bytes = self->file->read(self->piece.data(), self->piece.size(), error);
        if (error)
            bytes = 0;
        boost::asio::post(io, [self, bytes, keepAlive] { self->writePiece(bytes, keepAlive); });
    });
}

void HttpSession::writePiece(std::size_t bytes, bool keepAlive) {
    // A file that shrank since its size was sent cannot end its answer
    // properly: the client sees the connection close early.
    if (bytes == 0) {
        file.reset();
        beast::error_code ignored;
        stream.socket().close(ignored);
        return;
    }
    stream.expires_after(context.limits.requestTimeout);
    boost::asio::async_write(stream, boost::asio::buffer(piece.data(), bytes),
                             [self = shared_from_this(), keepAlive](beast::error_code error, std::size_t written) {
                                 self->left -= std::min<std::uint64_t>(self->left, written);
                                 if (error || self->left == 0) {
                                     self->file.reset();
                                     return self->onWrite(keepAlive, error, written);
                                 }
                                 self->readPiece(keepAlive);
                             });
}

void HttpSession::onWrite(bool keepAlive, beast::error_code error, std::size_t) {
    if (error)
        return;
    if (!keepAlive)
        return close();
    readRequest();
}

void HttpSession::close() {
    beast::error_code ignored;
    stream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

}  // namespace tethrix::service
