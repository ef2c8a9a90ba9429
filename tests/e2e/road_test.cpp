// The whole road against a real tethrix-service: a source of the plug-in,
// loaded by zarvo-host, fills its lists and records over a socket, and the
// host program's commands show what it holds.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>

#include <gmock/gmock.h>

#include <sstream>

namespace zarvo {
namespace {

using namespace zarvo::testkit;

using ::testing::HasSubstr;

const char* const tracksSql =
    "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT, duration REAL, favourite BOOL);"
    "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 1233)"
    " INSERT INTO tracks SELECT i, printf('Track %04d', i), i * 0.5, i % 3 = 0 FROM n;";

const char* const tracksSource =
    "<tracks uri=\"com.tavelorix.content/tracks\" type=\"list\" block_size=\"100\" sort=\"id\">"
    "<field name=\"id\" type=\"int\"/><field name=\"title\" type=\"string\"/>"
    "<field name=\"duration\" type=\"real\"/><field name=\"favourite\" type=\"bool\"/></tracks>";

const char* const librarySql =
    "CREATE TABLE library(name TEXT, owner TEXT, track_count INTEGER);"
    "INSERT INTO library VALUES ('Home', 'Ines', 1234);"
    "CREATE TABLE artists(id INTEGER PRIMARY KEY, name TEXT, album_ids TEXT);"
    "INSERT INTO artists VALUES (1, 'Anna Trio', '13;11'), (2, 'Ben Band', '12');"
    "CREATE TABLE albums(id INTEGER PRIMARY KEY, title TEXT, year INTEGER);"
    "INSERT INTO albums VALUES (11, 'First', 1990), (12, 'Second', 1991), (13, 'Third', 1992);";

const char* const librarySources =
    "<library uri=\"com.tavelorix.content/library\"><field name=\"name\" type=\"string\"/>"
    "<field name=\"tracks\" column=\"track_count\" type=\"int\"/></library>"
    "<artists uri=\"com.tavelorix.content/artists\" type=\"list\" sort=\"name\">"
    "<field name=\"name\" type=\"string\"/>"
    "<field name=\"albums\" column=\"album_ids\" type=\"list\" dynamic_source=\"albums\" lookup_column=\"id\"/>"
    "</artists>"
    "<dynamic_source uri=\"com.tavelorix.content/albums\" name=\"albums\">"
    "<field name=\"title\" type=\"string\"/><field name=\"year\" type=\"int\"/></dynamic_source>";

/// How a track row reads on one line, as the table above makes it.
std::string trackText(std::uint64_t index) {
    char title[16];
    std::snprintf(title, sizeof(title), "Track %04u", static_cast<unsigned>(index));
    std::ostringstream text;
    text << "id=" << index << " title=\"" << title << "\" duration=" << static_cast<double>(index) * 0.5
         << " favourite=" << (index % 3 == 0 ? "true" : "false");
    return text.str();
}

std::string declaration(const std::string& sources) {
    return "<sources>" + sources + "</sources>";
}

class Road : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("TETHRIX_SERVICE_URL");
        executeSql(database(), tracksSql);
        executeSql(database(), librarySql);
        service = std::make_unique<RunningService>(database());
    }

    std::string database() const { return directory.file("media.db"); }

    ProgramResult host(std::vector<std::string> arguments, const std::string& sources) const {
        for (const std::string& option :
             {std::string("--service"), service->url(), std::string("--declaration"), declaration(sources)}) {
            arguments.push_back(option);
        }
        return runProgram(builtFile("bin/zarvo-host"), arguments);
    }

    TemporaryDirectory directory;
    std::unique_ptr<RunningService> service;
};

TEST_F(Road, ScrollCommandReportsEveryRowFilledJumpsBackAndFailsShortOfItsGoal) {
    const ProgramResult result =
        host({"scroll", "tracks", "--frame-ms", "0", "--step", "13", "--to", "1300", "--jump", "1000"}, tracksSource);
    ASSERT_EQ(result.status, 1) << result.err;
    EXPECT_THAT(result.err, HasSubstr("zarvo-host: scroll of tracks stopped at row 1233, short of row 1300: the "
                                      "list holds 1234 rows and did not grow for "));
    EXPECT_THAT(result.out, HasSubstr(" to rows 1214 to 1233 of 1234\n  row 1214: " + trackText(1214) + "\n"));
    EXPECT_THAT(result.out, HasSubstr("jump to row 1000: filled"));
    EXPECT_THAT(result.out, HasSubstr("  row 1000: " + trackText(1000) + "\n"));
    EXPECT_THAT(result.out, HasSubstr("rows seen: 1254, filled while shown: 1254 (100.0%)\n"));
}

TEST_F(Road, ScrollCommandWithoutAGoalSucceedsAtTheEndOfTheList) {
    const ProgramResult result = host({"scroll", "tracks", "--frame-ms", "0", "--step", "200"}, tracksSource);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(" to rows 1214 to 1233 of 1234\n"));
}

TEST_F(Road, SnapshotShowsASingleRecordAndTheDetailRowsOfAMaster) {
    const ProgramResult result = host({"snapshot"}, librarySources);
    ASSERT_EQ(result.status, 0) << result.err;
    // The snapshot's layout is the plug-in's and tested there; the road shows
    // the values that came over the socket: the single record, the artists
    // sorted by name, and the albums of the first in the order of its keys.
    std::string values;
    for (std::size_t end = result.out.find("</"); end != std::string::npos; end = result.out.find("</", end + 1)) {
        const std::size_t start = result.out.rfind('>', end) + 1;
        const std::string text = result.out.substr(start, end - start);
        values += text.find('\n') == std::string::npos ? text + ";" : "";
    }
    EXPECT_EQ(values, "Home;1234;Anna Trio;Third;1992;First;1990;") << result.out;
}

TEST_F(Road, WatchCommandPrintsChangesAsTheyComeAndEndsAtSigint) {
    ChildProcess watch(builtFile("bin/zarvo-host"),
                       {"watch", "--service", service->url(), "--declaration", declaration(librarySources)},
                       directory.file("watch.log"));
    ASSERT_TRUE(watch.readUntil("Root.library.name = \"Home\"\n")) << watch.outputSoFar();
    EXPECT_THAT(watch.outputSoFar(), HasSubstr("Root.connected = true\n"));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), 0) << readFile(directory.file("watch.log"));
}

}  // namespace
}  // namespace zarvo
