// tethrix-service for tests: on a thread of the test, or as a process of its
// own that can be killed as a crash would end it; the SQLite databases it
// serves; and a client that speaks the protocol to it frame by frame.
#ifndef ZARVO_TESTKIT_RUNNING_SERVICE_H
#define ZARVO_TESTKIT_RUNNING_SERVICE_H

#include <zarvo/testkit/process.h>

#include "service.h"

#include <tethrix/protocol/codec.h>

#include <boost/asio/io_context.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace zarvo {
namespace testkit {

/// Runs `sql` on the database at `path`, making it if need be.
void executeSql(const std::string& path, const std::string& sql);

/// The media table most tests use: tracks(id, title, artist_id, duration,
/// favourite, cover) with `rows` rows, some of them with NULLs.
std::string tracksScript(int rows);

/// The service on a thread of this process, on a free port of 127.0.0.1.
class RunningService {
public:
    explicit RunningService(const tethrix::service::ServiceOptions& options);
    /// Serves `database`, and the files of its folder.
    explicit RunningService(const std::string& database, unsigned short port = 0);
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    unsigned short port() const { return boundPort; }
    std::string url() const { return "ws://127.0.0.1:" + std::to_string(boundPort) + "/tethrix"; }
    /// Stops the service and closes what it still holds open, as the end of
    /// the program would.
    void stop();

private:
    std::unique_ptr<tethrix::service::Service> service;
    unsigned short boundPort = 0;
    std::thread thread;
};

/// tethrix-service as a process of its own. Its query log goes to `logFile`.
class ServiceProcess {
public:
    ServiceProcess(const std::string& database, const std::string& logFile, unsigned short port = 0);

    unsigned short port() const { return boundPort; }
    std::string url() const { return "127.0.0.1:" + std::to_string(boundPort); }
    /// Ends the service at once, without closing its connections.
    void kill();

private:
    ChildProcess process;
    unsigned short boundPort = 0;
};

constexpr std::chrono::seconds receiveTimeout{20};

/// A WebSocket client of /tethrix that sends and reads single frames. Every
/// wait is bounded, so that a fault fails the test instead of hanging it.
class ProtocolClient {
public:
    /// Connects and, if `greet`, exchanges hellos.
    explicit ProtocolClient(unsigned short port, bool greet = true);

    void send(const tethrix::protocol::Message& message);
    void sendText(const std::string& frame);
    void sendBinary(const std::string& frame);
    /// The next message; fails the test and gives an error message saying
    /// so if none comes or it does not decode.
    tethrix::protocol::Message receive();
    template <typename T>
    T receiveAs() {
        tethrix::protocol::Message message = receive();
        if (auto* wanted = std::get_if<T>(&message)) {
            return *wanted;
        }
        failUnexpected(message);
        return T{};
    }
    /// Reads until the server closes; the close code, or none on timeout.
    std::optional<int> awaitClose();

    const tethrix::protocol::Hello& serverHello() const { return hello; }

private:
    void failUnexpected(const tethrix::protocol::Message& message);
    bool runUntil(const bool& done);
    /// Reads one frame into `buffer`; false if none came within the timeout.
    bool readFrame(boost::beast::error_code& error);

    boost::asio::io_context io;
    boost::beast::websocket::stream<boost::beast::tcp_stream> socket;
    boost::beast::flat_buffer buffer;
    tethrix::protocol::Hello hello;
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

}  // namespace testkit
}  // namespace zarvo

#endif
