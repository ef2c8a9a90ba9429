// A fresh TCP connection: plain HTTP requests for files and runtime data
// (runtime_endpoint.h), until a request asks for the WebSocket upgrade on
// the protocol's path, which hands the connection over to a
// WebSocketSession.
#ifndef TETHRIX_SERVICE_HTTP_SESSION_H
#define TETHRIX_SERVICE_HTTP_SESSION_H

#include "session_registry.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <memory>
#include <optional>

namespace tethrix::service {

class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(boost::asio::ip::tcp::socket&& socket, ServiceContext& context);
    void run();

private:
    void readRequest();
    void onRead(boost::beast::error_code error, std::size_t bytes);
    void refuseBody();
    void upgrade(HttpRequest request);
    void onWrite(bool keepAlive, boost::beast::error_code error, std::size_t bytes);
    void close();

    boost::beast::tcp_stream stream;
    ServiceContext& context;
    boost::beast::flat_buffer buffer;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser;
};

}  // namespace tethrix::service

#endif
