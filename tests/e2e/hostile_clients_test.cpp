// Clients that break the rules on purpose, each against a service with small
// bounds: one that asks and never reads, one that sends junk, a truncated
// frame, a frame that claims 2 GB, and a thousand connections that do
// nothing. While each does its worst and after it, a client that plays by
// the rules still gets its blocks, and the hostile one is closed.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>

#include <gtest/gtest.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tethrix::service {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;

const std::string tracksUri = "content://com.tavelorix.content/tracks";

/// A block of the tracks, as a client of the rules asks for it.
void expectBlocks(unsigned short port) {
    zarvo::testkit::ProtocolClient client(port);
    client.send(protocol::Query{1, tracksUri, {"id", "title"}, "", "id", 100, 20});
    auto result = client.receiveAs<protocol::Result>();
    ASSERT_EQ(result.rows.size(), 20u);
    EXPECT_EQ(std::get<std::int64_t>(result.rows[0][0]), 101);
}

/// A connection the test speaks raw bytes on, after an optional upgrade.
class RawConnection {
public:
    RawConnection(unsigned short port, bool upgrade) : socket(io) {
        socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
        if (!upgrade)
            return;
        write(
            "GET /tethrix HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        asio::streambuf response;
        asio::read_until(socket, response, "\r\n\r\n");
    }

    void write(const std::string& bytes) { asio::write(socket, asio::buffer(bytes)); }

    /// A masked text frame, as a client must send it.
    void writeFrame(const std::string& payload) {
        std::string frame = "\x81";
        if (payload.size() < 126) {
            frame += static_cast<char>(0x80 | payload.size());
        } else {
            frame += static_cast<char>(0x80 | 126);
            frame += static_cast<char>(payload.size() >> 8);
            frame += static_cast<char>(payload.size() & 0xff);
        }
        frame += std::string(4, '\0');  // a mask of zeros leaves the payload as it is
        write(frame + payload);
    }

    /// Until the service closes, reads and throws away what comes or, if
    /// not `reading`, only writes, which fails once the service has reset
    /// the connection; false if it does not close within the wait.
    bool closedByService(bool reading) {
        socket.non_blocking(true);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        char sink[65536];
        const std::string ping = "\x81\x80\0\0\0\0";  // an empty frame: the service would refuse it, were it read
        while (std::chrono::steady_clock::now() < deadline) {
            beast::error_code error;
            if (reading) {
                socket.wait(tcp::socket::wait_read, error);
                socket.read_some(asio::buffer(sink), error);
            } else {
                socket.wait(tcp::socket::wait_write, error);
                socket.write_some(asio::buffer(ping), error);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            if (error && error != asio::error::would_block)
                return true;
        }
        return false;
    }

private:
    asio::io_context io;
    tcp::socket socket;
};

struct HostileCase {
    std::string name;
    /// Whether the hostile client takes what the service sends.
    bool reads;
    /// Does its worst and gives the connections the service is to close.
    std::function<std::vector<std::unique_ptr<RawConnection>>(unsigned short port)> attack;
};

/// `count` connections, upgraded to WebSocket or not.
std::vector<std::unique_ptr<RawConnection>> open(unsigned short port, bool upgrade, int count = 1) {
    std::vector<std::unique_ptr<RawConnection>> connections;
    for (int i = 0; i < count; ++i)
        connections.push_back(std::make_unique<RawConnection>(port, upgrade));
    return connections;
}

TEST(HostileClientsTest, NoClientKeepsAnotherFromItsBlocks) {
    zarvo::testkit::TemporaryDirectory directory;
    zarvo::testkit::executeSql(directory.file("media.db"), zarvo::testkit::tracksScript(2000));
    ServiceOptions options;
    options.database = (directory.path() / "media.db").string();
    options.limits.sessionOutboxBytes = 64 * 1024;
    options.limits.stuckTimeout = std::chrono::milliseconds(100);
    options.limits.idleTimeout = std::chrono::milliseconds(1000);
    options.limits.requestTimeout = std::chrono::milliseconds(400);
    options.limits.maxConnections = 64;
    zarvo::testkit::RunningService service(options);

    const std::vector<HostileCase> cases = {
        {"asks for every row, again and again, and never reads", false,
         [](unsigned short port) {
             auto connections = open(port, true);
             connections[0]->writeFrame(R"({"type":"hello","version":2})");
             for (int id = 1; id <= 200; ++id) {
                 connections[0]->writeFrame(R"({"type":"query","id":)" + std::to_string(id) + R"(,"uri":")" +
                                            tracksUri + R"(","columns":[],"filter":"","sort":"","index":0,"count":0})");
             }
             return connections;
         }},
        {"sends junk instead of a request", true,
         [](unsigned short port) {
             auto connections = open(port, false);
             connections[0]->write(std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", 15));
             return connections;
         }},
        {"stops in the middle of a frame", true,
         [](unsigned short port) {
             auto connections = open(port, true);
             connections[0]->write(std::string("\x81\xe4\0\0\0\0{\"type\":\"pi", 16));
             return connections;
         }},
        {"announces a frame of 2 GB", true,
         [](unsigned short port) {
             auto connections = open(port, true);
             connections[0]->write(std::string("\x81\xff\0\0\0\0\x80\0\0\0\0\0\0\0{", 15));
             return connections;
         }},
        {"opens a thousand connections and says nothing", true,
         [](unsigned short port) { return open(port, false, 1000); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto connections = c.attack(service.port());
        expectBlocks(service.port());
        EXPECT_TRUE(connections.front()->closedByService(c.reads));
        EXPECT_TRUE(connections.back()->closedByService(c.reads));
        connections.clear();
        expectBlocks(service.port());
    }
}

}  // namespace
}  // namespace tethrix::service
