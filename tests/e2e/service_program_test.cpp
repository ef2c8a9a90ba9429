// The tethrix-service program as scripts and other tests run it.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

namespace tethrix::service {
namespace {

using namespace zarvo::testkit;

class ProgramTest : public ::testing::Test {
protected:
    void SetUp() override { zarvo::testkit::executeSql(database, zarvo::testkit::tracksScript(10)); }

    zarvo::testkit::TemporaryDirectory directory;
    std::filesystem::path database = directory.path() / "media.db";
};

TEST_F(ProgramTest, ServesOnAFreePortLogsQueriesAndStopsCleanlyOnSignals)
{
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
            client.send(protocol::Query{7, "content://com.tavelorix.content/tracks", {"id", "title"}, "id>8", "", 0, 0});
            EXPECT_EQ(client.receiveAs<protocol::Result>().rows.size(), 2u);
        }
        program.signal(stopSignal);
        EXPECT_EQ(program.wait(), 0);
        // One line per query; only the time varies.
        std::string log = readFile(errors);
        const std::string fixed = "query id=7 uri=\"content://com.tavelorix.content/tracks\" columns=\"[id,title]\" "
                                  "filter=\"id>8\" sort=\"\" index=0 count=0 rows=2 ms=";
        ASSERT_EQ(log.substr(0, fixed.size()), fixed) << log;
        std::string time = log.substr(fixed.size());
        EXPECT_TRUE(time.size() >= 5 && time.back() == '\n' && time[time.size() - 4] == '.' &&
                    time.find_first_not_of("0123456789.\n") == std::string::npos)
            << time;
    }
}

TEST_F(ProgramTest, CannotStartSaysWhyInOneLine)
{
    std::ofstream(directory.path() / "not-a-database") << "plain text, long enough to be no SQLite header at all";
    std::ofstream(directory.path() / "radio.xml") << "<sources service='radio'>\n<string value='FM 4'/></sources>";
    std::ofstream(directory.path() / "radio.xml.ok") << "<sources service='radio'><string name='station'/></sources>";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--db", database.string(), "--frobnicate"}, "tethrix-service: unknown option \"--frobnicate\" (see --help)\n"},
        {{"--db", (directory.path() / "missing.db").string()},
         "tethrix-service: cannot open " + (directory.path() / "missing.db").string() + ": unable to open database file\n"},
        {{"--db", (directory.path() / "not-a-database").string()},
         "tethrix-service: cannot open " + (directory.path() / "not-a-database").string() + ": file is not a database\n"},
        {{"--db", database.string(), "--bind", "localhost:80"}, "tethrix-service: bad bind address \"localhost:80\"\n"},
        {{"--db", database.string(), "--runtime", (directory.path() / "radio.xml").string()},
         "tethrix-service: " + (directory.path() / "radio.xml").string() +
             ": servicedata://radio: line 2, <string>: a node needs a name\n"},
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
