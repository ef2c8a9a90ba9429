// The host program end to end, as an HMI engineer runs it, and the plug-in
// library as a host loads it.

#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

namespace zarvo {
namespace test {

using namespace zarvo::testkit;
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const char* const declarationXml =
    "<sources>"
    "<now uri=\"com.tavelorix.content/now\"><field name=\"rank\" type=\"int\"/>"
    "<field name=\"title\" type=\"string\"/></now>"
    "<tracks uri=\"com.tavelorix.content/tracks\" type=\"list\"><field name=\"title\" type=\"string\"/></tracks>"
    "</sources>";

const char* const expectedSnapshot =
    "<root status=\"OK\">\n"
    "    <source uri=\"content://com.tavelorix.content/now\" name=\"now\">\n"
    "        <field name=\"rank\" type=\"integer\">0</field>\n"
    "        <field name=\"title\" type=\"string\"/>\n"
    "    </source>\n"
    "    <source uri=\"content://com.tavelorix.content/tracks\" name=\"tracks\"/>\n"
    "</root>\n";

class ZarvoHost : public ::testing::Test {
protected:
    // A service named in the environment must not reach these runs.
    void SetUp() override { unsetenv("TETHRIX_SERVICE_URL"); }

    static ProgramResult host(const std::vector<std::string>& arguments) {
        return runProgram(builtFile("bin/zarvo-host"), arguments);
    }

    TemporaryDirectory folder;
    const std::string directory = folder.path().string();
};

TEST_F(ZarvoHost, SnapshotIsTheDocumentAloneOnStandardOutputFromADeclarationAFileOrADeclarationFile) {
    const std::string path = folder.write("media.xml", declarationXml);
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"--declaration", declarationXml, "--name", "Media"}, {"--config", path}, {"--declaration", "@" + path}}) {
        std::vector<std::string> command = {"snapshot"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const ProgramResult result = host(command);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, expectedSnapshot) << arguments.front();
    }
}

TEST_F(ZarvoHost, TreeShowsRootAndConnectedWithTypesAndValues) {
    const ProgramResult result = host({"tree", "--declaration", declarationXml});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "Root (object)\n"
              "  connected (boolean) = false\n"
              "  now (object)\n"
              "    rank (integer) = 0\n"
              "    title (string) = \"\"\n"
              "  tracks (list, 0 rows)\n");
}

// The message is the one line on standard error; an empty one means help on standard output.
struct CommandRow {
    std::vector<std::string> arguments;
    int status;
    std::string message;
};

TEST_F(ZarvoHost, EveryCommandHasHelpAndBadInputGivesOneLineAndANonZeroExit) {
    const std::vector<CommandRow> rows = {
        {{"--help"}, 0, ""},
        {{"snapshot", "--help"}, 0, ""},  // each command's help is one lookup of one table
        {{"snapshot", "--plugin", "/nonexistent/plugin.so"}, 1, "no plug-in at /nonexistent/plugin.so"},
        {{"snapshot", "--declaration", "@/nonexistent/d.xml"}, 1, "cannot read declaration file /nonexistent/d.xml"},
        {{"frobnicate"}, 2, "unknown command frobnicate"},
        {{}, 2, "no command given"},
        {{"tree", "--wait-ms", "soon"}, 2, "option --wait-ms takes a whole number"},
        {{"tree", "--name"}, 2, "option --name needs a value"},
        {{"snapshot", "extra"}, 2, "unexpected argument extra"},
        {{"load"}, 2, "load needs a resource URL"},
        {{"scroll"}, 2, "scroll needs the path of a list"},
        {{"tree", "--service", "nohost"}, 2, "not a service URL: \"nohost\""},
        {{"scroll", "tracks", "--step", "0"}, 2, "--window and --step take at least 1"},
        {{"watch", "--for", "soon"}, 2, "option --for takes a number of seconds"},
        {{"inspect", "--port", "70000"}, 2, "option --port takes a port from 0 to 65535"},
        {{"inspect", "--bind", "nowhere"}, 2, "not an address to listen on: \"nowhere\""},
    };
    for (const CommandRow& row : rows) {
        const ProgramResult result = host(row.arguments);
        SCOPED_TRACE(row.arguments.empty() ? row.message : row.arguments.front() + " " + row.message);
        EXPECT_EQ(result.status, row.status);
        if (row.message.empty()) {
            EXPECT_THAT(result.out, StartsWith("Usage: zarvo-host"));
            EXPECT_THAT(result.err, IsEmpty());
        } else {
            EXPECT_THAT(result.out, IsEmpty());
            EXPECT_THAT(result.err, StartsWith("zarvo-host: " + row.message));
            EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        }
    }
}

TEST_F(ZarvoHost, ScrollOfAPathThatIsNoListSaysSo) {
    const ProgramResult result = host({"scroll", "now", "--declaration", declarationXml});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, EndsWith("\nzarvo-host: no list at now in the tree of DataSource\n"));
}

TEST_F(ZarvoHost, AServiceThatCannotBeReachedIsOneLineAndTheSourceIsShownWithoutIt) {
    // Nothing listens on port 1 of the loopback.
    const ProgramResult result =
        host({"snapshot", "--declaration", declarationXml, "--service", "127.0.0.1:1", "--wait-ms", "200"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, expectedSnapshot);
    EXPECT_THAT(result.err, HasSubstr("zarvo-host: the service at 127.0.0.1:1 could not be reached within 200 ms; "
                                      "showing what the source holds without it\n"));
}

TEST_F(ZarvoHost, LoadOfAMissingFileSaysWhy) {
    const ProgramResult result = host({"load", directory + "/missing.png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("error host platform/host/resource_manager.cpp:"));
    EXPECT_THAT(result.err, HasSubstr("zarvo-host: could not load " + directory + "/missing.png"));
}

TEST_F(ZarvoHost, AMissingConfigurationFileGoesToThePlugInWhichLogsTheReadersFailure) {
    const ProgramResult result = host({"tree", "--config", directory + "/later.xml"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("Root (object)\n"));
    // Log records go to standard error in their line format.
    EXPECT_THAT(result.err, HasSubstr("error tethrix datasource/xml_configuration_reader.cpp:"));
    EXPECT_THAT(result.err, HasSubstr(": ERROR, xml file " + directory + "/later.xml loading failed, error code 3"));
}

/// The plug-in's dynamic symbols of one kind, demangled: "U" undefined, or
/// the defined code (T, W, i) that is its own rather than the standard
/// library's.
std::vector<std::string> pluginSymbols(bool undefined) {
    const ProgramResult symbols = runProgram("/usr/bin/nm", {"-D", undefined ? "--undefined-only" : "--defined-only",
                                                             "-C", builtFile("lib/libzarvo_tethrix_datasource.so")});
    EXPECT_EQ(symbols.status, 0) << symbols.err;
    std::istringstream lines(symbols.out);
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string address, kind, name;
        if (!undefined) {
            fields >> address;
        }
        std::getline(fields >> kind >> std::ws, name);
        // The standard library's template instances are not the plug-in's own.
        const std::string function = name.substr(0, name.find('('));
        const bool own = function.rfind("std::", 0) != 0 && function.find(" std::") == std::string::npos;
        if (undefined ? name.find("zarvo::") != std::string::npos
                      : (kind == "T" || kind == "W" || kind == "i") && own) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(PluginLibrary, ExportsItsModuleEntryAndTheOperationsForOutsideCallersAlone) {
    const std::string text = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";
    EXPECT_EQ(pluginSymbols(false),
              (std::vector<std::string>{
                  "createModule", "zarvo::AbstractTethrixDataSource::isConnected() const",
                  "zarvo::ZarvoTethrixDataSource::takeDataSnapshot(zarvo::Domain*, " + text + " const&, " + text +
                      "&, " + text + "&)",
                  "zarvo::getDataObjectValueAsAny(std::shared_ptr<zarvo::DataObject>)",
                  "zarvo::setDataObjectValueFromAny(std::shared_ptr<zarvo::DataObject>, boost::any const&)"}));
}

TEST(PluginLibrary, ImportsOfOursAreContractOperationsAlone) {
    const char* path = std::getenv("ZARVO_CONTRACT_SYMBOLS");
    ASSERT_NE(path, nullptr) << "ZARVO_CONTRACT_SYMBOLS names no list of contract symbols";
    std::ifstream listed(path);
    ASSERT_TRUE(listed) << "cannot read " << path;
    std::set<std::string> contract;
    for (std::string line; std::getline(listed, line);) {
        if (!line.empty() && line[0] != '#') {
            contract.insert(line);
        }
    }
    // A sanitizer build also imports the type information of the contract's
    // classes (its checks of dynamic types use it); that is no operation.
    for (const std::string& name : pluginSymbols(true)) {
        const std::string head = name.substr(0, name.find("zarvo::"));
        if (head != "typeinfo for " && head != "typeinfo name for " && head != "vtable for ") {
            EXPECT_EQ(contract.count(name), 1u) << "the plug-in imports " << name << ", which is no contract operation";
        }
    }
}

}  // namespace
}  // namespace test
}  // namespace zarvo
