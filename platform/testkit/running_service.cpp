#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>

#include "sqlite_database.h"

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http.hpp>

#include <signal.h>

#include <filesystem>
#include <stdexcept>

namespace zarvo {
namespace testkit {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace protocol = tethrix::protocol;
using tcp = asio::ip::tcp;

void executeSql(const std::string& path, const std::string& sql) {
    auto database = tethrix::service::SqliteDatabase::openReadWrite(path);
    // Durability is of no use in a test, and syncing every statement is slow.
    database.execute("PRAGMA synchronous = OFF; BEGIN;\n" + sql + ";\nCOMMIT;");
}

std::string tracksScript(int rows) {
    return "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT, artist_id INTEGER, duration REAL, "
           "favourite BOOLEAN, cover VARCHAR(200));\n"
           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
           std::to_string(rows) +
           ")\n"
           "INSERT INTO tracks SELECT i, 'Track ' || printf('%05d', i), i % 7, i * 1.5, i % 3 = 0, "
           "CASE WHEN i % 5 = 0 THEN NULL ELSE 'covers/' || i || '.png' END FROM n;\n";
}

namespace {

tethrix::service::ServiceOptions optionsFor(const std::string& database, unsigned short port) {
    tethrix::service::ServiceOptions options;
    options.database = database;
    options.files = std::filesystem::path(database).parent_path();
    options.port = port;
    return options;
}

}  // namespace

RunningService::RunningService(const tethrix::service::ServiceOptions& options)
    : service(std::make_unique<tethrix::service::Service>(options)) {
    boundPort = service->endpoint().port();
    thread = std::thread([this] { service->run(); });
}

RunningService::RunningService(const std::string& database, unsigned short port)
    : RunningService(optionsFor(database, port)) {}

RunningService::~RunningService() {
    stop();
}

void RunningService::stop() {
    if (!service) {
        return;
    }
    service->stop();
    thread.join();
    service.reset();
}

ServiceProcess::ServiceProcess(const std::string& database, const std::string& logFile, unsigned short port)
    : process(builtFile("bin/tethrix-service"), {"--db", database, "--port", std::to_string(port), "--log-queries"},
              logFile) {
    if (!process.readUntil("\n")) {
        throw std::runtime_error("tethrix-service did not start");
    }
    const std::string& line = process.outputSoFar();
    boundPort = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
}

void ServiceProcess::kill() {
    process.signal(SIGKILL);
    process.wait();
}

ProtocolClient::ProtocolClient(unsigned short port, bool greet) : socket(io) {
    beast::get_lowest_layer(socket).connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    socket.handshake("127.0.0.1:" + std::to_string(port), protocol::webSocketPath);
    socket.read_message_max(protocol::maxResultFrameBytes);
    if (!greet) {
        return;
    }
    send(protocol::Hello{protocol::protocolVersion, "tests", "", ""});
    hello = receiveAs<protocol::Hello>();
}

void ProtocolClient::send(const protocol::Message& message) {
    sendText(protocol::encode(message));
}

void ProtocolClient::sendText(const std::string& frame) {
    socket.text(true);
    socket.write(asio::buffer(frame));
}

void ProtocolClient::sendBinary(const std::string& frame) {
    socket.binary(true);
    socket.write(asio::buffer(frame));
    socket.text(true);
}

bool ProtocolClient::runUntil(const bool& done) {
    io.restart();
    auto deadline = std::chrono::steady_clock::now() + receiveTimeout;
    while (!done && std::chrono::steady_clock::now() < deadline) {
        io.run_one_until(deadline);
    }
    if (done) {
        return true;
    }
    beast::get_lowest_layer(socket).cancel();
    io.restart();
    io.run();
    return false;
}

bool ProtocolClient::readFrame(beast::error_code& error) {
    bool done = false;
    buffer.consume(buffer.size());
    socket.async_read(buffer, [&](beast::error_code e, std::size_t) {
        error = e;
        done = true;
    });
    return runUntil(done);
}

protocol::Message ProtocolClient::receive() {
    beast::error_code error;
    if (!readFrame(error)) {
        ADD_FAILURE() << "no message within the timeout";
        return protocol::Error{std::nullopt, "timeout", std::nullopt};
    }
    if (error) {
        ADD_FAILURE() << "read failed: " << error.message();
        return protocol::Error{std::nullopt, "read failed", std::nullopt};
    }
    protocol::Decoded decoded =
        protocol::decode(beast::buffers_to_string(buffer.data()), protocol::maxResultFrameBytes);
    if (!decoded) {
        ADD_FAILURE() << "undecodable frame: " << decoded.error.reason;
        return protocol::Error{std::nullopt, "undecodable", std::nullopt};
    }
    return *decoded.message;
}

std::optional<int> ProtocolClient::awaitClose() {
    beast::error_code error;
    do {
        if (!readFrame(error)) {
            return std::nullopt;
        }
    } while (!error);
    // The close frame counts even if the connection was gone before the
    // close handshake could finish.
    if (socket.reason().code != beast::websocket::close_code::none) {
        return static_cast<int>(socket.reason().code);
    }
    return -1;
}

void ProtocolClient::failUnexpected(const protocol::Message& message) {
    ADD_FAILURE() << "unexpected message: " << protocol::encode(message);
}

HttpReply httpRequest(unsigned short port, const std::string& method, const std::string& target) {
    asio::io_context io;
    beast::tcp_stream stream(io);
    stream.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    stream.expires_after(receiveTimeout);
    // Written by hand: a client library would clean up a target like /../x.
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
    asio::write(stream.socket(), asio::buffer(request));
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.skip(method == "HEAD");
    http::read(stream, buffer, parser);
    auto& response = parser.get();
    HttpReply reply;
    reply.status = static_cast<int>(response.result_int());
    reply.contentType = std::string(response[http::field::content_type]);
    reply.contentLength = std::string(response[http::field::content_length]);
    reply.body = response.body();
    return reply;
}

}  // namespace testkit
}  // namespace zarvo
