// Queries the service must refuse: each gets an error that says what was
// wrong, the client logs it, what was right still arrives, and nothing
// written into a filter ever reaches the database as SQL.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>

#include "service_connection.h"

#include <zarvo/client.h>
#include <zarvo/client/client_core.h>
#include <zarvo/content_loader.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>

namespace zarvo {
namespace test {

using namespace zarvo::testkit;
namespace {

using ::testing::HasSubstr;

const std::string CONTENT = "content://com.tavelorix.content/";

TEST(QueryErrors, EachBadSourceIsLoggedWithTheServicesReasonAndTheGoodOneStillFills) {
    unsetenv("TETHRIX_SERVICE_URL");
    TemporaryDirectory directory;
    const std::string database = directory.file("media.db");
    executeSql(database,
               "CREATE TABLE library(name TEXT); INSERT INTO library VALUES ('Home');"
               "CREATE TABLE tracks(title TEXT); CREATE TABLE albums(title TEXT, year INTEGER);"
               "CREATE TABLE artists(name TEXT);");
    RunningService service(database);

    struct BadSource {
        std::string element;
        std::string table;
        std::string reason;
    };
    const std::vector<BadSource> sources = {
        {"<t uri=\"com.tavelorix.content/tracks\" filter=\"title =\"><field name=\"title\" type=\"string\"/></t>",
         "tracks", "filter: expected a value after \"=\" instead of the end"},
        {"<t uri=\"com.tavelorix.content/albums\" sort=\"yeer\"><field name=\"title\" type=\"string\"/></t>",
         "albums", "sort: unknown column \"yeer\" in table \"albums\""},
        {"<t uri=\"com.tavelorix.content/artists\"><field name=\"born\" type=\"int\"/></t>", "artists",
         "unknown column \"born\" in table \"artists\""},
        {"<t uri=\"com.tavelorix.content/playlists\"><field name=\"name\" type=\"string\"/></t>", "playlists",
         "unknown table \"playlists\""},
    };
    std::string declaration = "<sources><library uri=\"com.tavelorix.content/library\">"
                              "<field name=\"name\" type=\"string\"/></library>";
    for (const BadSource& source : sources) {
        declaration += source.element;
    }
    declaration += "</sources>";

    const ProgramResult result = runProgram(builtFile("bin/zarvo-host"), {"tree", "--service", service.url(),
                                                                          "--declaration", declaration});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("  library (object)\n    name (string) = \"Home\"\n"));
    for (const BadSource& source : sources) {
        EXPECT_THAT(result.err, HasSubstr("error tethrix-client platform/client/loader_channel.cpp:"));
        EXPECT_THAT(result.err, HasSubstr("Query of " + CONTENT + source.table + " failed: " + source.reason + "\n"));
    }
}

}  // namespace
}  // namespace test
}  // namespace zarvo
