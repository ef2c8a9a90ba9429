// A running service on a thread of its own, and a WebSocket client that
// speaks the protocol to it, for end-to-end tests. Every wait is bounded, so
// that a fault fails the test instead of hanging it.
#ifndef TETHRIX_TESTS_SERVICE_SERVICE_CLIENT_H
#define TETHRIX_TESTS_SERVICE_SERVICE_CLIENT_H

#include "service.h"

#include <tethrix/protocol/codec.h>

#include <boost/asio/io_context.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace tethrix::service::testing {

class RunningService {
public:
    explicit RunningService(const ServiceOptions& options);
    ~RunningService();

    unsigned short port() const { return boundPort; }
    /// Stops the service and closes what it still holds open, as the end of
    /// the program would.
    void stop();

private:
    std::unique_ptr<Service> service;
    unsigned short boundPort = 0;
    std::thread thread;
};

class TestClient {
public:
    /// Connects to /tethrix and, if `greet`, exchanges hellos.
    explicit TestClient(unsigned short port, bool greet = true);

    void send(const protocol::Message& message);
    void sendText(const std::string& frame);
    void sendBinary(const std::string& frame);
    /// The next message; fails the test and returns an error message
    /// saying so if none comes or it does not decode.
    protocol::Message receive();
    template <typename T>
    T receiveAs()
    {
        protocol::Message message = receive();
        if (auto* wanted = std::get_if<T>(&message)) return *wanted;
        failUnexpected(message);
        return T{};
    }
    /// Reads until the server closes; the close code, or none on timeout.
    std::optional<int> awaitClose();

    const protocol::Hello& serverHello() const { return hello; }

private:
    void failUnexpected(const protocol::Message& message);
    /// Runs the client's io_context until `done` or the timeout.
    bool runUntil(const bool& done);

    boost::asio::io_context io;
    boost::beast::websocket::stream<boost::beast::tcp_stream> socket;
    boost::beast::flat_buffer buffer;
    protocol::Hello hello;
};

struct HttpReply {
    int status = 0;
    std::string contentType;
    std::string body;
    std::string contentLength;
};

/// Sends one raw request (start line and headers as given) and reads the
/// reply.
HttpReply httpRequest(unsigned short port, const std::string& method, const std::string& target);

constexpr std::chrono::seconds receiveTimeout{20};

}  // namespace tethrix::service::testing

#endif
