// A service that dies and comes back: the source shows that it is offline,
// keeps what it has, and asks again once the service is back.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>

#include "host_session.h"
#include "service_connection.h"
#include "tree_printer.h"

#include <gmock/gmock.h>

namespace zarvo {
namespace test {

using namespace zarvo::testkit;
namespace {

const char* const DECLARATION =
    "<sources>"
    "<library uri=\"com.tavelorix.content/library\"><field name=\"name\" type=\"string\"/></library>"
    "<tracks uri=\"com.tavelorix.content/tracks\" type=\"list\"><field name=\"title\" type=\"string\"/></tracks>"
    "</sources>";

std::string textAt(host::HostSession& session, const std::string& path) {
    const std::shared_ptr<DataObject> object = session.source().lookupDataContext(path);
    return object ? host::valueText(*object) : std::string("(none)");
}

std::string firstRowText(host::HostSession& session, const std::string& path) {
    const auto list = std::dynamic_pointer_cast<DataObjectList>(session.source().lookupDataContext(path));
    if (!list || list->itemCount() == 0) {
        return "(none)";
    }
    const std::string text = host::fieldsText(*list->acquireItem(0));
    list->releaseItem(0);
    return text;
}

TEST(ServiceRestart, TheSourceGoesOfflineKeepsItsValuesAndQueriesAgainOnceTheServiceIsBack) {
    unsetenv("TETHRIX_SERVICE_URL");
    TemporaryDirectory directory;
    const std::string database = directory.file("media.db");
    executeSql(database,
               "CREATE TABLE library(name TEXT); INSERT INTO library VALUES ('Before');"
               "CREATE TABLE tracks(title TEXT); INSERT INTO tracks VALUES ('Blue Hour'), ('Cold Light');");
    auto service = std::make_unique<ServiceProcess>(database, directory.file("service.log"));
    const unsigned short port = service->port();

    host::SourceOptions options;
    options.declaration = DECLARATION;
    options.serviceUrl = service->url();
    options.wait = GENEROUS_WAIT;
    host::HostSession session(options);
    std::vector<std::string> flags;
    const auto connected = session.source().lookupDataContext("connected");
    ASSERT_TRUE(connected);
    const auto token =
        connected->addModifiedSubscription([&](DataContext&) { flags.push_back(host::valueText(*connected)); });
    session.settle();
    ASSERT_EQ(textAt(session, "library.name"), "\"Before\"");
    ASSERT_EQ(firstRowText(session, "tracks"), "title=\"Blue Hour\"");

    service->kill();
    ASSERT_TRUE(session.loop().runUntil([&]() { return textAt(session, "connected") == "false"; }, GENEROUS_WAIT));
    // Offline, the tree keeps its shape and its last values.
    EXPECT_EQ(textAt(session, "library.name"), "\"Before\"");

    executeSql(database, "UPDATE library SET name = 'After'");
    const std::uint64_t queriesBefore = host::sentQueryCount(session.domain());
    service = std::make_unique<ServiceProcess>(database, directory.file("service.log"), port);
    ASSERT_TRUE(session.loop().runUntil(
        [&]() { return textAt(session, "connected") == "true" && textAt(session, "library.name") == "\"After\""; },
        GENEROUS_WAIT))
        << textAt(session, "library.name");
    EXPECT_GT(host::sentQueryCount(session.domain()), queriesBefore);
    EXPECT_EQ(firstRowText(session, "tracks"), "title=\"Blue Hour\"");
    EXPECT_EQ(flags, (std::vector<std::string>{"true", "false", "true"}));
    connected->removeModifiedSubscription(token);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
