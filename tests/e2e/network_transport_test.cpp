// The client library's network transport against a real tethrix-service on
// 127.0.0.1: the handshake, a query answered with typed values on the loop,
// the file base URL, reconnecting after the service went away, and peers
// that never greet or drop every connection.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>

#include <zarvo/client.h>
#include <zarvo/client/network_transport.h>
#include <zarvo/content_loader.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/recording_observer.h>
#include <zarvo/testkit/test_host.h>

#include <tethrix/protocol/codec.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/any.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/websocket.hpp>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>

namespace zarvo {
namespace {

using namespace zarvo::testkit;

class NetworkTransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        executeSql(database(),
                   "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT);"
                   "INSERT INTO tracks VALUES (1, 'Blue Hour');"
                   "CREATE TABLE numbers(id INTEGER PRIMARY KEY, i INTEGER, r REAL);"
                   "INSERT INTO numbers VALUES (1, 2147483648, 1e300), (2, -2147483649, -1e300),"
                   " (3, 9007199254740992, 3.4e38), (4, -7, 0.5);");
        context = Context::instance(host.domain(), nullptr);
        client = context->getClient();
        token = client->getConnection()->addStateSubscription(
            [this](Connection::State state) { states.push_back(static_cast<int>(state)); });
    }

    void TearDown() override {
        client->getConnection()->removeStateSubscription(token);
        client::installTransport(*context, nullptr);
    }

    std::string database() const { return directory.file("media.db"); }

    void connectTo(unsigned short port, client::NetworkTransportOptions options = {}) {
        options.port = port;
        options.firstReconnectDelay = std::chrono::milliseconds(20);
        options.maxReconnectDelay = std::chrono::milliseconds(100);
        client::installTransport(*context, std::make_shared<client::NetworkTransport>(options));
    }

    /// Runs the loop until `done`, which may turn on a peer's own thread and
    /// not on the loop's work, so it is checked every millisecond; within a
    /// bound that only a fault reaches.
    bool pumpUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + generousWait;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            host.runUntilIdle();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    bool reachesState(int state) {
        return pumpUntil([&] { return !states.empty() && states.back() == state; });
    }

    /// The answer to a query of `table`, delivered on the loop's thread.
    RecordingObserver::Loaded load(const std::string& table, std::vector<std::string> columns, int index, int count) {
        RecordingObserver recorder;
        auto loader =
            std::make_shared<DefaultContentLoader>(client.get(), client->getConnection()->getMessageDispatcher());
        loader->addObserver(&recorder);
        loader->load(std::make_shared<ContentQueryArguments>("content://com.tavelorix.content/" + table,
                                                             std::move(columns), "", index, count, "id"));
        EXPECT_TRUE(pumpUntil([&] { return recorder.results.size() == 1; }));
        loader->removeObserver(&recorder);
        EXPECT_EQ(recorder.threads, std::vector<std::thread::id>{std::this_thread::get_id()});
        return recorder.results.empty() ? RecordingObserver::Loaded{} : recorder.results[0];
    }

    TemporaryDirectory directory;
    testkit::TestHost host;
    std::shared_ptr<Context> context;
    std::shared_ptr<Client> client;
    std::shared_ptr<void> token;
    std::vector<int> states;
};

// The connection on an I/O thread of its own, and on the loop itself.
class NetworkTransportModeTest : public NetworkTransportTest, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(OwnThreadOrLoop, NetworkTransportModeTest, ::testing::Bool());

TEST_P(NetworkTransportModeTest, AMissingOrLostServiceIsToldOnceAndReconnectedToAndAnswersArriveOnTheLoop) {
    unsigned short port = 0;
    {
        RunningService probe(database());  // a port that is free again once it stops
        port = probe.port();
    }
    client::NetworkTransportOptions options;
    options.loop = GetParam() ? host.domain().getMessageDispatcher() : nullptr;
    connectTo(port, options);
    ASSERT_TRUE(reachesState(Connection::StateLost));
    {
        RunningService running(database(), port);
        ASSERT_TRUE(reachesState(Connection::StateConnected));
        EXPECT_EQ(client->resolveResourceUrl("covers/a.png", 1),
                  "http://127.0.0.1:" + std::to_string(port) + "/covers/a.png");
        // Numbers beyond the client's types become the nearest in range,
        // logged once per column.
        testkit::LogCapture log;
        const auto numbers = load("numbers", {"i", "r"}, 0, 0);
        ASSERT_EQ(numbers.values.size(), 4u);
        const struct {
            int integer;
            float real;
        } expected[] = {{INT_MAX, std::numeric_limits<float>::max()},
                        {INT_MIN, std::numeric_limits<float>::lowest()},
                        {INT_MAX, 3.4e38f},
                        {-7, 0.5f}};
        for (std::size_t r = 0; r < 4; ++r) {
            EXPECT_EQ(boost::any_cast<int>(numbers.values[r][0]), expected[r].integer) << r;
            EXPECT_EQ(boost::any_cast<float>(numbers.values[r][1]), expected[r].real) << r;
        }
        EXPECT_THAT(log.messages(LogLevel::Warning),
                    testing::ElementsAre(testing::HasSubstr("Column 'i' of the answer to query"),
                                         testing::HasSubstr("Column 'r' of the answer to query")));
    }
    ASSERT_TRUE(reachesState(Connection::StateLost));
    RunningService again(database(), port);
    ASSERT_TRUE(reachesState(Connection::StateConnected));
    EXPECT_EQ(boost::any_cast<std::string>(load("tracks", {"title"}, 0, 1).values.at(0).at(0)), "Blue Hour");
    // Lost is told once, however many attempts failed meanwhile.
    EXPECT_EQ(states, (std::vector<int>{2, 1, 2, 1}));
}

/// A WebSocket peer on 127.0.0.1 that takes every connection and then either
/// says nothing (version 0) or says hello in `version`, and closes at once
/// after a hello in this protocol's version. Keeps when each came.
class BadPeer {
public:
    explicit BadPeer(int version) : version(version) {
        acceptor.open(tcp::v4());
        acceptor.bind({boost::asio::ip::address_v4::loopback(), 0});
        acceptor.listen();
        thread = std::thread([this] { serve(); });
    }
    ~BadPeer() {
        stopping = true;
        tcp::socket wake(io);
        boost::system::error_code ignored;
        wake.connect(acceptor.local_endpoint(), ignored);
        thread.join();
    }

    unsigned short port() const { return acceptor.local_endpoint().port(); }
    std::vector<std::chrono::steady_clock::time_point> connections() const {
        std::lock_guard<std::mutex> lock(mutex);
        return accepted;
    }

private:
    using tcp = boost::asio::ip::tcp;

    void serve() {
        while (!stopping) {
            tcp::socket socket(io);
            boost::system::error_code error;
            acceptor.accept(socket, error);
            if (error || stopping)
                return;
            {
                std::lock_guard<std::mutex> lock(mutex);
                accepted.push_back(std::chrono::steady_clock::now());
            }
            auto peer = std::make_unique<boost::beast::websocket::stream<tcp::socket>>(std::move(socket));
            peer->accept(error);
            if (!error && version != 0) {
                namespace protocol = tethrix::protocol;
                peer->text(true);
                peer->write(boost::asio::buffer(protocol::encode(protocol::Hello{version, "bad peer", "", ""})), error);
                if (version == protocol::protocolVersion) {
                    peer->close(boost::beast::websocket::close_code::normal, error);
                }
            }
            silent.push_back(std::move(peer));  // open, unread, until the peer goes
        }
    }

    const int version;
    boost::asio::io_context io;
    tcp::acceptor acceptor{io};
    std::thread thread;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;
    std::vector<std::chrono::steady_clock::time_point> accepted;
    std::vector<std::unique_ptr<boost::beast::websocket::stream<tcp::socket>>> silent;
};

TEST_F(NetworkTransportTest, APeerWithoutHelloOrOfAnotherVersionIsLeftAndOneThatDropsEveryConnectionMeetsAGrowingWait) {
    using std::chrono::milliseconds;
    const int ours = tethrix::protocol::protocolVersion;
    for (int version : {0, ours, ours + 1}) {
        SCOPED_TRACE("hello in version " + std::to_string(version) + "; 0: no hello");
        states.clear();
        BadPeer peer(version);
        client::NetworkTransportOptions options;
        options.helloTimeout = milliseconds(50);
        connectTo(peer.port(), options);
        ASSERT_TRUE(pumpUntil([&] { return peer.connections().size() >= 5; }));
        client::installTransport(*context, nullptr);
        host.runUntilIdle();

        const auto at = peer.connections();
        EXPECT_EQ(std::count(states.begin(), states.end(), Connection::StateConnected) > 0, version == ours);
        // Waits of 20, 40, 80 and then 100 ms (the maximum) between
        // attempts: a hello is no reason to start short again.
        EXPECT_GE(at[4] - at[3], milliseconds(90));
    }
}

TEST_F(NetworkTransportTest, ServiceUrlsAreRead) {
    for (const char* good : {"ws://example.org:8080/tethrix", "example.org:8080", "ws://[example.org]:8080/tethrix"}) {
        const auto url = client::parseServiceUrl(good);
        ASSERT_TRUE(url) << good;
        EXPECT_EQ(url->host + ":" + std::to_string(url->port) + url->path, "example.org:8080/tethrix") << good;
    }
    for (const char* bad : {"", "ws://host", "host:", "host:0", "host:70000", "host:80x", ":80"}) {
        EXPECT_FALSE(client::parseServiceUrl(bad)) << bad;
    }
}

}  // namespace
}  // namespace zarvo
