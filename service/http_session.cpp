#include "http_session.h"

#include "runtime_endpoint.h"
#include "websocket_session.h"

#include <tethrix/protocol/messages.h>

#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <chrono>

namespace tethrix::service {

namespace beast = boost::beast;

namespace {

/// An idle or slow HTTP client is dropped after this; WebSocket sessions
/// have their own timeouts.
constexpr std::chrono::seconds requestTimeout{30};
/// Requests for files carry no body; update text is published in one, up
/// to the size of a protocol frame.
constexpr std::uint64_t maxRequestBody = protocol::maxRequestFrameBytes;

std::string_view pathOf(std::string_view target)
{
    return target.substr(0, target.find_first_of("?#"));
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket&& socket, ServiceContext& context)
    : stream(std::move(socket)), context(context)
{
}

void HttpSession::run()
{
    readRequest();
}

void HttpSession::readRequest()
{
    parser.emplace();
    parser->body_limit(maxRequestBody);
    stream.expires_after(requestTimeout);
    http::async_read(stream, buffer, *parser, beast::bind_front_handler(&HttpSession::onRead, shared_from_this()));
}

void HttpSession::onRead(beast::error_code error, std::size_t)
{
    if (error == http::error::end_of_stream) return close();
    if (error == http::error::body_limit) return refuseBody();
    if (error) return;  // timeout, reset or garbage: drop the connection
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
    auto response = path == protocol::webSocketPath
                        ? textResponse(request, http::status::upgrade_required, "WebSocket endpoint")
                    : isRuntimePath(path) ? respondRuntime(request, path, context.runtimeData)
                                          : context.files.respond(request);
    beast::async_write(stream, std::move(response),
                       beast::bind_front_handler(&HttpSession::onWrite, shared_from_this(), keepAlive));
}

void HttpSession::refuseBody()
{
    // The rest of the body is still on its way: answer and close.
    HttpRequest request = parser->release();
    request.keep_alive(false);
    auto response = textResponse(request, http::status::payload_too_large,
                                 "request body larger than " + std::to_string(maxRequestBody) + " bytes");
    beast::async_write(stream, std::move(response),
                       beast::bind_front_handler(&HttpSession::onWrite, shared_from_this(), false));
}

void HttpSession::upgrade(HttpRequest request)
{
    stream.expires_never();
    auto session = std::make_shared<WebSocketSession>(std::move(stream), context);
    auto& sessions = context.sessions;
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(), [](const auto& s) { return s.expired(); }),
                   sessions.end());
    sessions.push_back(session);
    session->run(std::move(request));
}

void HttpSession::onWrite(bool keepAlive, beast::error_code error, std::size_t)
{
    if (error) return;
    if (!keepAlive) return close();
    readRequest();
}

void HttpSession::close()
{
    beast::error_code ignored;
    stream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

}  // namespace tethrix::service
