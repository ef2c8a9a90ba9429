// Runtime data over the service's sockets: subscriptions over WebSocket, the
// HTTP endpoint that publishes and reads trees, and the publish command.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>
#include <zarvo/testkit/thrown.h>
#include "publish_command.h"
#include "websocket_session.h"

#include <gtest/gtest.h>
#include <boost/asio/write.hpp>

#include <fstream>
#include <sstream>

namespace tethrix::service {
namespace {

using namespace zarvo::testkit;

const std::string initialState = R"({"values":{"volume":3,"queue":[{"title":"Cold Light"}]}})";

class RuntimeEndpointTest : public ::testing::Test {
protected:
    static ServiceOptions options(const zarvo::testkit::TemporaryDirectory& directory) {
        zarvo::testkit::executeSql(directory.path() / "media.db", zarvo::testkit::tracksScript(1));
        std::ofstream(directory.path() / "player.xml") << R"(<sources service="player">
            <integer name="volume" value="3"/>
            <list name="queue"><template><string name="title"/></template>
              <row><string name="title" value="Cold Light"/></row></list>
          </sources>)";
        ServiceOptions o;
        o.database = (directory.path() / "media.db").string();
        o.runtimeFiles = {(directory.path() / "player.xml").string()};
        return o;
    }

    /// The publish command, run in this process.
    std::pair<int, std::string> publish(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--service", "http://127.0.0.1:" + std::to_string(service.port())});
        std::ostringstream out;
        std::ostringstream err;
        int code = runPublishCommand(arguments, out, err);
        return {code, out.str() + err.str()};
    }

    protocol::Update subscribe(ProtocolClient& client, protocol::RequestId id) {
        client.send(protocol::Subscribe{id, "servicedata://player"});
        return client.receiveAs<protocol::Update>();
    }

    zarvo::testkit::TemporaryDirectory directory;
    RunningService service{options(directory)};
};

TEST_F(RuntimeEndpointTest, SubscribersGetTheStateAndThenEveryPublishedUpdate) {
    // Fan-out to several subscribers is the hub's and tested there.
    ProtocolClient first(service.port());
    EXPECT_EQ(subscribe(first, 4), (protocol::Update{4, "", initialState}));
    const std::string update = R"({"values":{"volume":7}})";
    std::ofstream(directory.path() / "update.json") << update;
    EXPECT_EQ(publish({"player", "@" + (directory.path() / "update.json").string()}),
              std::make_pair(0, std::string("published to servicedata://player (1 subscriber)\n")));
    EXPECT_EQ(first.receiveAs<protocol::Update>(), (protocol::Update{4, "", update}));

    // After unsubscribe nothing more comes: the pong is the next message.
    first.send(protocol::Unsubscribe{4});
    EXPECT_EQ(publish({"player", update}).first, 0);
    first.send(protocol::Ping{5});
    EXPECT_EQ(first.receiveAs<protocol::Pong>().id, 5u);
}

TEST_F(RuntimeEndpointTest, AConnectionHoldsNoMoreThanItsLimitOfOpenRequests) {
    ProtocolClient client(service.port());
    for (protocol::RequestId id = 1; id <= maxOpenRequests; ++id)
        subscribe(client, id);
    client.send(protocol::Subscribe{1000, "servicedata://player"});
    const auto refused = client.receiveAs<protocol::Error>();
    EXPECT_EQ(refused.id, std::optional<protocol::RequestId>(1000));
    EXPECT_EQ(refused.reason, "too many open requests");

    // The limit is per connection, and a request that ends makes room.
    ProtocolClient other(service.port());
    EXPECT_EQ(subscribe(other, 1).data, initialState);
    client.send(protocol::Unsubscribe{1});
    EXPECT_EQ(subscribe(client, 1000).data, initialState);
}

TEST_F(RuntimeEndpointTest, TheHttpEndpointAnswersEachRequestWithItsStatus) {
    const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
        {"GET", "/runtime/player?x=1", 200, initialState},
        {"GET", "/runtime/radio", 404, "no runtime data \"servicedata://radio\"\n"},
        {"PUT", "/runtime/player", 405, "use POST to publish, GET to read the state\n"},
    };
    for (const auto& [method, target, status, body] : cases) {
        auto reply = zarvo::testkit::httpRequest(service.port(), method, target);
        EXPECT_EQ(reply.status, status) << method << " " << target;
        EXPECT_EQ(reply.body, body) << method << " " << target;
    }

    // A body beyond the limit is refused before it is read.
    boost::asio::io_context io;
    boost::beast::tcp_stream stream(io);
    stream.connect(boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), service.port()));
    stream.expires_after(zarvo::testkit::receiveTimeout);
    boost::asio::write(stream.socket(),
                       boost::asio::buffer(std::string(
                           "POST /runtime/player HTTP/1.1\r\nHost: x\r\nContent-Length: 2000000\r\n\r\n{")));
    boost::beast::flat_buffer buffer;
    boost::beast::http::response<boost::beast::http::string_body> response;
    boost::beast::http::read(stream, buffer, response);
    EXPECT_EQ(response.result_int(), 413u);
    EXPECT_EQ(response.body(), "request body larger than 1048576 bytes\n");
}

TEST(PublishCommandTest, ArgumentsAreCheckedBeforeAnythingIsSent) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"player", "{}"}, "--service URL is required; usage: tethrix-service publish --service URL NAME TEXT|@FILE"},
        {{"--service", "http://localhost", "player", "{}"},
         "--service needs HOST:PORT, e.g. http://127.0.0.1:8080, not \"localhost\""},
        {{"--service", "127.0.0.1:8080", "player"},
         "NAME and TEXT are required; usage: tethrix-service publish --service URL NAME TEXT|@FILE"},
        {{"--service=127.0.0.1:8080", "--dry", "player", "{}"},
         "unknown option \"--dry\"; usage: tethrix-service publish --service URL NAME TEXT|@FILE"},
        {{"--service", "127.0.0.1:8080", "player", "@/nonexistent/update.json"},
         "cannot read \"/nonexistent/update.json\""},
    };
    for (const auto& [arguments, message] : cases) {
        EXPECT_EQ(thrownMessage<std::invalid_argument>([&] { parsePublishCommand(arguments); }), message);
    }
    auto request = parsePublishCommand({"--service", "ws://[::1]:9000/tethrix", "player", "{}"});
    EXPECT_EQ(request.host, "::1");
    EXPECT_EQ(request.port, "9000");
}

TEST_F(RuntimeEndpointTest, PublishingToAServiceThatIsNotThereIsOneLineAndExitCodeOne) {
    const std::string where = "127.0.0.1:" + std::to_string(service.port());
    service.stop();
    EXPECT_EQ(publish({"player", "{}"}),
              std::make_pair(1, "tethrix-service publish: cannot publish to " + where + ": Connection refused\n"));
}

}  // namespace
}  // namespace tethrix::service
