// The host program end to end, as an HMI engineer runs it, and the plug-in
// library as a host loads it.

#include "run_program.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace zarvo {
namespace test {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const char* const DECLARATION =
    "<sources>"
    "<now uri=\"com.tavelorix.content/now\"><field name=\"rank\" type=\"int\"/>"
    "<field name=\"title\" type=\"string\"/></now>"
    "<tracks uri=\"com.tavelorix.content/tracks\" type=\"list\"><field name=\"title\" type=\"string\"/></tracks>"
    "</sources>";

const char* const SNAPSHOT =
    "<root status=\"OK\">\n"
    "    <source uri=\"content://com.tavelorix.content/now\" name=\"now\">\n"
    "        <field name=\"rank\" type=\"integer\">0</field>\n"
    "        <field name=\"title\" type=\"string\"/>\n"
    "    </source>\n"
    "    <source uri=\"content://com.tavelorix.content/tracks\" name=\"tracks\"/>\n"
    "</root>\n";

class ZarvoHost : public ::testing::Test {
protected:
    void SetUp() override {
        // A service named in the environment must not reach these runs.
        unsetenv("TETHRIX_SERVICE_URL");
        char pattern[] = "/tmp/zarvo-host-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
    }
    void TearDown() override {
        for (const std::string& file : files) {
            std::remove(file.c_str());
        }
        rmdir(directory.c_str());
    }

    std::string writeFile(const std::string& name, const std::string& text) {
        const std::string path = directory + "/" + name;
        std::ofstream(path) << text;
        files.push_back(path);
        return path;
    }

    static ProgramResult host(const std::vector<std::string>& arguments) {
        return runProgram(builtFile("bin/zarvo-host"), arguments);
    }

    std::string directory;
    std::vector<std::string> files;
};

TEST_F(ZarvoHost, SnapshotFromADeclarationIsTheDocumentAloneOnStandardOutput) {
    const ProgramResult result = host({"snapshot", "--declaration", DECLARATION});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, SNAPSHOT);
}

TEST_F(ZarvoHost, SnapshotFromAFileAndFromADeclarationFileAgree) {
    const std::string path = writeFile("media.xml", DECLARATION);
    const ProgramResult fromFile = host({"snapshot", "--config", path});
    const ProgramResult fromAt = host({"snapshot", "--declaration", "@" + path});
    EXPECT_EQ(fromFile.status, 0) << fromFile.err;
    EXPECT_EQ(fromFile.out, SNAPSHOT);
    EXPECT_EQ(fromAt.out, SNAPSHOT);
}

TEST_F(ZarvoHost, NameOptionNamesTheResourceThatIsSnapshotted) {
    const ProgramResult result = host({"snapshot", "--declaration", DECLARATION, "--name", "Media"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("<root status=\"OK\">"));
}

TEST_F(ZarvoHost, TreeShowsRootAndConnectedWithTypesAndValues) {
    const ProgramResult result = host({"tree", "--declaration", DECLARATION});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "Root (object)\n"
              "  connected (boolean) = false\n"
              "  now (object)\n"
              "    rank (integer) = 0\n"
              "    title (string) = \"\"\n"
              "  tracks (list, 0 rows)\n");
}

TEST_F(ZarvoHost, LogRecordsGoToStandardErrorInTheirLineFormat) {
    const ProgramResult result = host({"tree", "--declaration", "<broken"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err,
                HasSubstr("error tethrix datasource/xml_configuration_reader.cpp:"));
    EXPECT_THAT(result.err, HasSubstr(": ERROR, failed to load data source override configurations, error code"));
}

TEST_F(ZarvoHost, EveryCommandHasHelp) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"--help"}, {"snapshot", "--help"}, {"tree", "--help"},
                                               {"load", "--help"}, {"scroll", "--help"}, {"watch", "--help"},
                                               {"inspect", "--help"}}) {
        const ProgramResult result = host(arguments);
        EXPECT_EQ(result.status, 0) << arguments.front();
        EXPECT_THAT(result.out, StartsWith("Usage: zarvo-host")) << arguments.front();
        EXPECT_THAT(result.err, IsEmpty());
    }
}

struct FailureRow {
    std::vector<std::string> arguments;
    int status;
    std::string message;
};

TEST_F(ZarvoHost, BadInputGivesOneLineAndANonZeroExit) {
    const std::vector<FailureRow> rows = {
        {{"snapshot", "--config", "/nonexistent/media.xml"}, 1, "no configuration file /nonexistent/media.xml"},
        {{"snapshot", "--plugin", "/nonexistent/plugin.so"}, 1, "no plug-in at /nonexistent/plugin.so"},
        {{"snapshot", "--declaration", "@/nonexistent/d.xml"}, 1, "cannot read declaration file /nonexistent/d.xml"},
        {{"frobnicate"}, 2, "unknown command frobnicate"},
        {{}, 2, "no command given"},
        {{"tree", "--wait-ms", "soon"}, 2, "option --wait-ms takes a whole number"},
        {{"tree", "--name"}, 2, "option --name needs a value"},
        {{"snapshot", "extra"}, 2, "unexpected argument extra"},
        {{"load"}, 2, "load needs a resource URL"},
        {{"tree", "--service", "nohost"}, 2, "not a service URL: \"nohost\""},
        {{"scroll"}, 2, "scroll needs the path of a list"},
        {{"scroll", "tracks", "--step", "0"}, 2, "--window and --step take at least 1"},
        {{"watch", "--for", "soon"}, 2, "option --for takes a number of seconds"},
        {{"inspect", "--port", "70000"}, 2, "option --port takes a port from 0 to 65535"},
        {{"inspect", "--bind", "nowhere"}, 2, "not an address to listen on: \"nowhere\""},
    };
    for (const FailureRow& row : rows) {
        const ProgramResult result = host(row.arguments);
        SCOPED_TRACE(row.message);
        EXPECT_EQ(result.status, row.status);
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(result.err, StartsWith("zarvo-host: " + row.message));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

TEST_F(ZarvoHost, ScrollOfAPathThatIsNoListSaysSo) {
    const ProgramResult result = host({"scroll", "now", "--declaration", DECLARATION});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, EndsWith("\nzarvo-host: no list at now in the tree of DataSource\n"));
}

TEST_F(ZarvoHost, AServiceThatCannotBeReachedIsOneLineAndTheSourceIsShownWithoutIt) {
    // Nothing listens on port 1 of the loopback.
    const ProgramResult result =
        host({"snapshot", "--declaration", DECLARATION, "--service", "127.0.0.1:1", "--wait-ms", "200"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, SNAPSHOT);
    EXPECT_THAT(result.err, HasSubstr("zarvo-host: the service at 127.0.0.1:1 could not be reached within 200 ms; "
                                      "showing what the source holds without it\n"));
}

TEST_F(ZarvoHost, LoadOfAMissingFileSaysWhy) {
    const ProgramResult result = host({"load", directory + "/missing.png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("error host platform/host/resource_manager.cpp:"));
    EXPECT_THAT(result.err, HasSubstr("zarvo-host: could not load " + directory + "/missing.png"));
}

TEST(PluginLibrary, ExportsOnlyItsModuleEntryOfItsOwnFunctions) {
    const ProgramResult symbols =
        runProgram("/usr/bin/nm", {"-D", "--defined-only", "-C", builtFile("lib/libzarvo_tethrix_datasource.so")});
    ASSERT_EQ(symbols.status, 0) << symbols.err;
    std::istringstream lines(symbols.out);
    std::string line;
    std::vector<std::string> ownFunctions;
    while (std::getline(lines, line)) {
        // "<address> <kind> <name>": code is T, W or i; the standard
        // library's template instances are not the plug-in's own.
        std::istringstream fields(line);
        std::string address;
        std::string kind;
        std::string name;
        fields >> address >> kind;
        std::getline(fields >> std::ws, name);
        const bool code = kind == "T" || kind == "W" || kind == "i";
        if (code && name.rfind("std::", 0) != 0 && name.find(" std::") == std::string::npos) {
            ownFunctions.push_back(name);
        }
    }
    EXPECT_EQ(ownFunctions, std::vector<std::string>{"createModule"});
}

}  // namespace
}  // namespace test
}  // namespace zarvo
