// A fresh TCP connection: plain HTTP requests for files and runtime data
// (runtime_endpoint.h), until a request asks for the WebSocket upgrade on
// the protocol's path, which hands the connection over to a
// WebSocketSession.
//
// Files are opened and read on the file reader thread, never on the
// network thread, and go out piece by piece: the request deadline applies
// to each piece, so a download that moves is never cut.
#ifndef TETHRIX_SERVICE_HTTP_SESSION_H
#define TETHRIX_SERVICE_HTTP_SESSION_H

#include "session_registry.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <memory>
#include <optional>
#include <vector>

namespace tethrix::service {

class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(boost::asio::ip::tcp::socket&& socket, ServiceContext& context);
    void run();
    /// Closes the connection if it is waiting for a request, to make room
    /// for a new one; gives whether it did.
    bool evictIfWaiting();

private:
    void readRequest();
    void onRead(boost::beast::error_code error, std::size_t bytes);
    void refuseBody();
    void upgrade(HttpRequest request);
    void serveFile(HttpRequest request);
    void sendFile(FileServer::Reply reply, bool keepAlive);
    void readPiece(bool keepAlive);
    void writePiece(std::size_t bytes, bool keepAlive);
    void onWrite(bool keepAlive, boost::beast::error_code error, std::size_t bytes);
    void close();

    boost::beast::tcp_stream stream;
    ServiceContext& context;
    ConnectionSlot slot;
    boost::beast::flat_buffer buffer;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser;
    bool waiting = false;
    /// The file being sent, what of it is left, and the piece in hand.
    std::shared_ptr<boost::beast::file> file;
    std::uint64_t left = 0;
    std::vector<char> piece;
};

}  // namespace tethrix::service

#endif
