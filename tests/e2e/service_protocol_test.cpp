// The service over real sockets on 127.0.0.1: the protocol conversation,
// several clients, cancelling, hostile frames, and files over HTTP; and
// tethrix-service as scripts and other tests run it.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <tuple>

namespace tethrix::service {
namespace {

using namespace zarvo::testkit;

const std::string tracksUri = "content://com.tavelorix.content/tracks";
const std::string bigUri = "content://com.tavelorix.content/big";

protocol::Query query(protocol::RequestId id, const std::string& uri, std::vector<std::string> columns,
                      std::string filter = "", std::string sort = "", int index = 0, int count = 0) {
    return protocol::Query{id, uri, std::move(columns), std::move(filter), std::move(sort), index, count};
}

/// Keeps the query worker busy for a while: a scan of 400,000 rows with two
/// LIKE patterns and a sort of what matches.
/// A scan that matches nothing and takes far longer than a frame's way
/// through a loaded machine, so that a cancel always finds it running.
protocol::Query slowQuery(protocol::RequestId id) {
    std::string filter = "word LIKE '%zz%'";
    for (const char* letters : {"yy", "xx", "vv", "uu", "tt", "ss", "rr", "qq", "pp", "oo", "nn", "mm", "ll", "kk"}) {
        filter += std::string(" OR word LIKE '%") + letters + "%'";
    }
    return query(id, bigUri, {"id"}, filter, "n DESC, word", 0, 1);
}

class ServiceEndToEndTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        directory = new zarvo::testkit::TemporaryDirectory();
        auto files = directory->path() / "files";
        std::filesystem::create_directories(files / "covers");
        std::ofstream(files / "covers" / "a b.png", std::ios::binary) << "\x89PNG\r\n\x1a\nfake";
        std::ofstream(files / "notes.txt") << "hello";
        std::ofstream(directory->path() / "secret.txt") << "secret";
        std::filesystem::create_symlink(directory->path() / "secret.txt", files / "link.txt");
        zarvo::testkit::executeSql(
            directory->path() / "media.db",
            zarvo::testkit::tracksScript(1000) +
                "CREATE TABLE big(id INTEGER PRIMARY KEY, word TEXT, n INTEGER);"
                "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 400000)"
                " INSERT INTO big SELECT i, printf('w%08x', i * 2654435761 % 4294967296),"
                " i % 1000 FROM n;");
    }

    static void TearDownTestSuite() {
        delete directory;
        directory = nullptr;
    }

    static ServiceOptions options() {
        ServiceOptions o;
        o.database = (directory->path() / "media.db").string();
        o.files = directory->path() / "files";
        return o;
    }

    static zarvo::testkit::TemporaryDirectory* directory;
    RunningService service{options()};
};

zarvo::testkit::TemporaryDirectory* ServiceEndToEndTest::directory = nullptr;

TEST_F(ServiceEndToEndTest, HelloTellsWhereFilesAreAndQueriesAreAnsweredWithResultsOrErrors) {
    ProtocolClient client(service.port());
    EXPECT_EQ(client.serverHello().version, protocol::protocolVersion);
    EXPECT_EQ(client.serverHello().software, "tethrix-service");
    EXPECT_EQ(client.serverHello().filesBaseUrl, "http://127.0.0.1:" + std::to_string(service.port()) + "/");
    client.send(query(1, tracksUri, {"id", "title"}, "artist_id=2", "id DESC", 1, 2));
    auto result = client.receiveAs<protocol::Result>();
    EXPECT_EQ(result.id, 1u);
    EXPECT_EQ(result.startIndex, 1u);
    EXPECT_EQ(result.columns, (std::vector<protocol::Column>{{"id", protocol::ColumnType::integer},
                                                             {"title", protocol::ColumnType::text}}));
    EXPECT_EQ(result.rows,
              (std::vector<std::vector<protocol::Value>>{{std::int64_t{989}, std::string("Track 00989")},
                                                         {std::int64_t{982}, std::string("Track 00982")}}));

    client.send(query(3, tracksUri, {"id"}, "id = 'unterminated"));
    auto bad = client.receiveAs<protocol::Error>();
    EXPECT_EQ(bad.id, std::optional<protocol::RequestId>(3));
    EXPECT_EQ(bad.reason, "filter: unterminated string");
    EXPECT_EQ(bad.position, std::optional<std::uint64_t>(5));
}

TEST_F(ServiceEndToEndTest, CancelDropsAWaitingAnswerAndFreesTheWorkerOfARunningOne) {
    ProtocolClient client(service.port());
    client.send(slowQuery(1));                               // keeps the worker busy
    client.send(query(2, tracksUri, {"id"}, "", "", 0, 1));  // waits behind it
    client.send(protocol::Cancel{2});
    client.send(protocol::Cancel{999});  // unknown: nothing happens
    client.send(protocol::Cancel{1});
    client.send(query(3, tracksUri, {"id"}, "", "", 5, 1));
    // Answers come in order; had query 1 or 2 been answered, it would be here.
    EXPECT_EQ(client.receiveAs<protocol::Result>().id, 3u);

    client.send(slowQuery(1));
    client.send(protocol::Cancel{1});
    client.send(query(1, tracksUri, {"id"}, "", "", 7, 1));  // the id is free again
    auto result = client.receiveAs<protocol::Result>();
    EXPECT_EQ(result.id, 1u);
    ASSERT_EQ(result.rows.size(), 1u);
    EXPECT_EQ(std::get<std::int64_t>(result.rows[0][0]), 8);  // the new query's row, not the slow one's
}

TEST_F(ServiceEndToEndTest, BadFramesGetAnErrorAndTheConnectionGoesOn) {
    ProtocolClient client(service.port());
    struct Case {
        std::string frame;
        std::optional<protocol::RequestId> id;
        std::string reasonPart;
    };
    const std::vector<Case> cases = {
        {"not json", std::nullopt, "not JSON"},
        {R"({"type":"query","id":4,"uri":"x"})", 4, "missing \"columns\""},
        {R"({"type":"result","id":1,"startIndex":0,"columns":[],"rows":[]})", std::nullopt,
         "unexpected message \"result\" from a client"},
        {R"({"type":"hello","version":1})", std::nullopt, "unexpected message \"hello\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.frame);
        client.sendText(c.frame);
        auto error = client.receiveAs<protocol::Error>();
        EXPECT_EQ(error.id, c.id);
        EXPECT_NE(error.reason.find(c.reasonPart), std::string::npos) << error.reason;
    }
    client.sendBinary(R"({"type":"ping","id":1})");
    EXPECT_EQ(client.receiveAs<protocol::Error>().reason, "binary frames are not accepted; send JSON text");

    client.send(protocol::Ping{9});
    EXPECT_EQ(client.receiveAs<protocol::Pong>().id, 9u);
}

TEST_F(ServiceEndToEndTest, RequestsBeforeHelloAndAnotherProtocolVersionAreRefused) {
    ProtocolClient client(service.port(), false);
    client.send(query(3, tracksUri, {"id"}));
    auto error = client.receiveAs<protocol::Error>();
    EXPECT_EQ(error.id, std::optional<protocol::RequestId>(3));
    EXPECT_EQ(error.reason, "hello expected first");
    client.send(protocol::Hello{});
    client.receiveAs<protocol::Hello>();
    client.send(query(4, tracksUri, {"id"}, "", "", 0, 1));
    EXPECT_EQ(client.receiveAs<protocol::Result>().id, 4u);

    ProtocolClient future(service.port(), false);
    future.send(protocol::Hello{3, "future", "", ""});
    auto refused = future.receiveAs<protocol::Error>();
    EXPECT_EQ(refused.id, std::nullopt);
    EXPECT_EQ(refused.reason, "unsupported protocol version 3; this service speaks 2");
    EXPECT_EQ(future.awaitClose(), std::optional<int>(1002));
}

TEST_F(ServiceEndToEndTest, StoppingTheServiceClosesConnectionsAsGoingAway) {
    ProtocolClient client(service.port());
    service.stop();
    EXPECT_EQ(client.awaitClose(), std::optional<int>(1001));
}

TEST_F(ServiceEndToEndTest, FilesAreServedFromTheDirectoryOnly) {
    const std::vector<std::tuple<std::string, std::string, int, std::string, std::string>> cases = {
        {"GET", "/covers/a%20b.png", 200, "image/png", "\x89PNG\r\n\x1a\nfake"},
        {"GET", "/covers/a%20b.png?size=small", 200, "image/png", "\x89PNG\r\n\x1a\nfake"},
        {"GET", "//covers/./a%20b.png", 200, "image/png", "\x89PNG\r\n\x1a\nfake"},
        {"GET", "/notes.txt", 200, "text/plain; charset=utf-8", "hello"},
        {"HEAD", "/notes.txt", 200, "text/plain; charset=utf-8", ""},
        {"GET", "/missing.png", 404, "text/plain; charset=utf-8", "Not Found\n"},
        {"GET", "/covers", 404, "text/plain; charset=utf-8", "Not Found\n"},
        {"GET", "/../secret.txt", 403, "text/plain; charset=utf-8", "Forbidden\n"},
        {"GET", "/%2e%2e/secret.txt", 403, "text/plain; charset=utf-8", "Forbidden\n"},
        {"GET", "/covers%2f..%2f..%2fsecret.txt", 403, "text/plain; charset=utf-8", "Forbidden\n"},
        {"GET", "/notes.txt%00.png", 403, "text/plain; charset=utf-8", "Forbidden\n"},
        {"GET", "/link.txt", 403, "text/plain; charset=utf-8", "Forbidden\n"},
        {"GET", "/bad%zz", 400, "text/plain; charset=utf-8", "Bad Request\n"},
        {"POST", "/notes.txt", 405, "text/plain; charset=utf-8", "method not allowed\n"},
        {"GET", "/tethrix", 426, "text/plain; charset=utf-8", "WebSocket endpoint\n"},
    };
    for (const auto& [method, target, status, contentType, body] : cases) {
        auto reply = httpRequest(service.port(), method, target);
        EXPECT_EQ(std::tie(reply.status, reply.contentType, reply.body), std::tie(status, contentType, body))
            << method << " " << target;
    }
    EXPECT_EQ(zarvo::testkit::httpRequest(service.port(), "HEAD", "/notes.txt").contentLength, "5");
}

class ProgramTest : public ::testing::Test {
protected:
    void SetUp() override { zarvo::testkit::executeSql(database, zarvo::testkit::tracksScript(10)); }

    zarvo::testkit::TemporaryDirectory directory;
    std::filesystem::path database = directory.path() / "media.db";
};

TEST_F(ProgramTest, ServesOnAFreePortLogsQueriesAndStopsCleanlyOnSignals) {
    for (int stopSignal : {SIGTERM, SIGINT}) {
        const std::string errors = directory.file("errors-" + std::to_string(stopSignal));
        ChildProcess program(builtFile("bin/tethrix-service"),
                             {"--db", database.string(), "--port", "0", "--log-queries"}, errors);
        ASSERT_TRUE(program.readUntil("\n"));
        const std::string line = program.outputSoFar();
        ASSERT_EQ(line.rfind("listening on 127.0.0.1:", 0), 0u) << line;
        auto port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
        {
            zarvo::testkit::ProtocolClient client(port);
            client.send(
                protocol::Query{7, "content://com.tavelorix.content/tracks", {"id", "title"}, "id>8", "", 0, 0});
            EXPECT_EQ(client.receiveAs<protocol::Result>().rows.size(), 2u);
        }
        program.signal(stopSignal);
        EXPECT_EQ(program.wait(), 0);
        // One line per query; only the time varies.
        std::string log = readFile(errors);
        const std::string fixed =
            "query id=7 uri=\"content://com.tavelorix.content/tracks\" columns=\"[id,title]\" "
            "filter=\"id>8\" sort=\"\" index=0 count=0 rows=2 ms=";
        ASSERT_EQ(log.substr(0, fixed.size()), fixed) << log;
        EXPECT_THAT(log.substr(fixed.size()), testing::MatchesRegex("[0-9]+\\.[0-9][0-9]\n")) << log;
    }
}

TEST_F(ProgramTest, CannotStartSaysWhyInOneLine) {
    std::ofstream(directory.path() / "radio.xml.ok") << "<sources service='radio'><string name='station'/></sources>";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--db", database.string(), "--frobnicate"},
         "tethrix-service: unknown option \"--frobnicate\" (see --help)\n"},
        {{"--db", (directory.path() / "missing.db").string()},
         "tethrix-service: cannot open " + (directory.path() / "missing.db").string() +
             ": unable to open database file\n"},
        {{"--db", database.string(), "--simulate", "player"},
         "tethrix-service: --simulate player: no runtime data \"player\" was loaded; give its tree with --runtime, "
         "e.g. examples/player.xml\n"},
        {{"--db", database.string(), "--runtime", (directory.path() / "radio.xml").string() + ".ok", "--simulate",
          "radio"},
         "tethrix-service: --simulate radio: the tree does not fit the player: update refused at the top: no node "
         "called \"state\"\n"},
    };
    for (const auto& [arguments, message] : cases) {
        const ProgramResult result = runProgram(builtFile("bin/tethrix-service"), arguments);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.status, 1);
    }
}

}  // namespace
}  // namespace tethrix::service
