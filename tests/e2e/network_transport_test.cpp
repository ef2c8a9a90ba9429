// The client library's network transport against a real tethrix-service on
// 127.0.0.1: the handshake, a query answered with typed values on the loop,
// the file base URL, and reconnecting after the service went away.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>

#include <zarvo/client.h>
#include <zarvo/client/network_transport.h>
#include <zarvo/content_loader.h>
#include <zarvo/testkit/recording_observer.h>
#include <zarvo/testkit/test_host.h>

#include <boost/any.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <unistd.h>

namespace zarvo {

using namespace zarvo::testkit;
namespace {


class NetworkTransportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        executeSql(database(), "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT, duration REAL, favourite BOOL);"
                         "INSERT INTO tracks VALUES (1, 'Blue Hour', 215.5, 1), (2, 'Cold Light', 187, 0);");
        context = Context::instance(host.domain(), nullptr);
        client = context->getClient();
        token = client->getConnection()->addStateSubscription([this](Connection::State state) {
            states.push_back(static_cast<int>(state));
        });
    }

    void TearDown() override
    {
        client->getConnection()->removeStateSubscription(token);
        client::installTransport(*context, nullptr);
    }

    std::string database() const { return directory.file("media.db"); }

    void connectTo(unsigned short port)
    {
        client::NetworkTransportOptions options;
        options.port = port;
        options.firstReconnectDelay = std::chrono::milliseconds(20);
        options.maxReconnectDelay = std::chrono::milliseconds(100);
        client::installTransport(*context, std::make_shared<client::NetworkTransport>(options));
    }

    /// Runs the loop until `done`; the network works on its own thread, so
    /// this waits for it, within a bound that only a fault reaches.
    template <typename Predicate>
    bool pumpUntil(Predicate done)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            host.runUntilIdle();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    bool reachesState(int state)
    {
        return pumpUntil([&] { return !states.empty() && states.back() == state; });
    }

    std::shared_ptr<DefaultContentLoader> makeLoader(RecordingObserver& recorder)
    {
        auto loader =
            std::make_shared<DefaultContentLoader>(client.get(), client->getConnection()->getMessageDispatcher());
        loader->addObserver(&recorder);
        return loader;
    }

    std::shared_ptr<ContentQueryArguments> tracksQuery(int index)
    {
        return std::make_shared<ContentQueryArguments>("content://com.tavelorix.content/tracks",
                                                       std::vector<std::string>{"id", "title", "duration", "favourite"},
                                                       "", index, 1, "id");
    }

    TemporaryDirectory directory;
    testkit::TestHost host;
    std::shared_ptr<Context> context;
    std::shared_ptr<Client> client;
    std::shared_ptr<void> token;
    std::vector<int> states;
};

TEST_F(NetworkTransportTest, QueriesAreAnsweredOnTheLoopWithTheClientsValueTypes)
{
    RunningService running(database());
    connectTo(running.port());
    ASSERT_TRUE(reachesState(Connection::StateConnected));
    EXPECT_EQ(client->resolveResourceUrl("covers/a.png", 1),
              "http://127.0.0.1:" + std::to_string(running.port()) + "/covers/a.png");

    RecordingObserver recorder;
    auto loader = makeLoader(recorder);
    loader->load(tracksQuery(1));
    ASSERT_TRUE(pumpUntil([&] { return recorder.results.size() == 1; }));
    EXPECT_EQ(recorder.threads[0], std::this_thread::get_id());  // on the loop
    EXPECT_EQ(recorder.results[0].startIndex, 1u);
    ASSERT_EQ(recorder.results[0].values.size(), 1u);
    const std::vector<boost::any>& values = recorder.results[0].values[0];
    ASSERT_EQ(values.size(), 4u);
    EXPECT_EQ(boost::any_cast<int>(values[0]), 2);
    EXPECT_EQ(boost::any_cast<std::string>(values[1]), "Cold Light");
    EXPECT_EQ(boost::any_cast<float>(values[2]), 187.0f);
    EXPECT_EQ(boost::any_cast<bool>(values[3]), false);
    loader->removeObserver(&recorder);
}

TEST_F(NetworkTransportTest, ALostServiceIsReportedAndReconnectedTo)
{
    unsigned short port = 0;
    {
        RunningService running(database());
        port = running.port();
        connectTo(port);
        ASSERT_TRUE(reachesState(Connection::StateConnected));
    }
    ASSERT_TRUE(reachesState(Connection::StateLost));

    RunningService again(database(), port);
    ASSERT_TRUE(reachesState(Connection::StateConnected));
    // Lost is told once, however many attempts failed meanwhile.
    EXPECT_EQ(states, (std::vector<int>{1, 2, 1}));

    RecordingObserver recorder;
    auto loader = makeLoader(recorder);
    loader->load(tracksQuery(0));
    ASSERT_TRUE(pumpUntil([&] { return recorder.results.size() == 1; }));
    EXPECT_EQ(boost::any_cast<std::string>(recorder.results[0].values[0][1]), "Blue Hour");
    loader->removeObserver(&recorder);
}

TEST_F(NetworkTransportTest, NoServiceAtFirstIsALostConnection)
{
    unsigned short port = 0;
    {
        RunningService probe(database());  // a port that is free again once it stops
        port = probe.port();
    }
    connectTo(port);
    ASSERT_TRUE(reachesState(Connection::StateLost));
    RunningService running(database(), port);
    ASSERT_TRUE(reachesState(Connection::StateConnected));
    EXPECT_EQ(states, (std::vector<int>{2, 1}));
}

TEST_F(NetworkTransportTest, ServiceUrlsAreRead)
{
    auto full = client::parseServiceUrl("ws://example.org:8080/tethrix");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->host, "example.org");
    EXPECT_EQ(full->port, 8080);
    EXPECT_EQ(full->path, "/tethrix");
    auto shortForm = client::parseServiceUrl("127.0.0.1:9000");
    ASSERT_TRUE(shortForm);
    EXPECT_EQ(shortForm->path, "/tethrix");
    auto v6 = client::parseServiceUrl("ws://[::1]:9000/");
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->host, "::1");
    for (const char* bad : {"", "ws://host", "host:", "host:0", "host:70000", "host:80x", ":80"}) {
        EXPECT_FALSE(client::parseServiceUrl(bad)) << bad;
    }
}

}  // namespace
}  // namespace zarvo
