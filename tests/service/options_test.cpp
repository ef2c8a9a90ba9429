#include "options.h"

#include <zarvo/testkit/files.h>
#include <zarvo/testkit/thrown.h>

#include <gtest/gtest.h>

namespace tethrix::service {
namespace {

TEST(OptionsTest, ReadsEveryOptionAndDefaultsServeTheLocalHostOnAFreePort) {
    zarvo::testkit::TemporaryDirectory directory;
    auto line = parseCommandLine({"--db", "media.db", "--port=8080", "--bind", "0.0.0.0", "--files",
                                  directory.path().string(), "--authority=org.example", "--log-queries"});
    EXPECT_EQ(line.options.database, "media.db");
    EXPECT_EQ(line.options.port, 8080);
    EXPECT_EQ(line.options.bind, "0.0.0.0");
    EXPECT_EQ(line.options.files, std::optional(directory.path()));
    EXPECT_EQ(line.options.authority, "org.example");
    EXPECT_TRUE(line.options.logQueries);

    // The defaults of bind address and port are the program's, seen in its
    // first line ("listening on 127.0.0.1:<a free port>").
    auto defaults = parseCommandLine({"--db", "media.db"});
    EXPECT_EQ(defaults.options.authority, "com.tavelorix.content");
    EXPECT_FALSE(defaults.options.files);
    EXPECT_FALSE(defaults.options.logQueries);
    EXPECT_TRUE(parseCommandLine({"--help"}).help);
}

TEST(OptionsTest, BadCommandLinesSayWhatIsWrong) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "--db FILE is required"},
        {{"--db"}, "--db needs a value"},
        {{"--db", "x", "--port", "65536"}, "--port needs a number from 0 to 65535, not \"65536\""},
        {{"--db", "x", "--port", "80x"}, "--port needs a number from 0 to 65535, not \"80x\""},
        {{"--db", "x", "--verbose"}, "unknown option \"--verbose\" (see --help)"},
        {{"--db", "x", "--log-queries=yes"}, "--log-queries takes no value"},
        {{"--db", "x", "--authority", "a/b"}, "--authority needs a name without \"/\", not \"a/b\""},
        {{"--db", "x", "--files", "/no/such/directory"}, "--files: \"/no/such/directory\" is not a directory"},
    };
    for (const auto& [arguments, reason] : cases) {
        EXPECT_EQ(zarvo::testkit::thrownMessage<std::invalid_argument>([&] { parseCommandLine(arguments); }), reason);
    }
}

}  // namespace
}  // namespace tethrix::service
