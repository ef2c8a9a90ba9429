// Queries the service must refuse: each gets an error that says what was
// wrong, the client logs it, what was right still arrives, and nothing
// written into a filter ever reaches the database as SQL.
#include "e2e_support.h"

#include "service_connection.h"

#include <zarvo/client.h>
#include <zarvo/client/client_core.h>
#include <zarvo/content_loader.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>

namespace zarvo {
namespace test {
namespace {

using ::testing::HasSubstr;

const std::string CONTENT = "content://com.tavelorix.content/";

TEST(QueryErrors, EachBadSourceIsLoggedWithTheServicesReasonAndTheGoodOneStillFills) {
    unsetenv("TETHRIX_SERVICE_URL");
    TestDirectory directory;
    const std::string database = directory.file("media.db");
    executeSql(database,
               "CREATE TABLE library(name TEXT); INSERT INTO library VALUES ('Home');"
               "CREATE TABLE tracks(title TEXT); CREATE TABLE albums(title TEXT, year INTEGER);"
               "CREATE TABLE artists(name TEXT);");
    ServiceRunner service(database);

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

/// Collects what one loader receives.
class Rows : public ContentLoader::Observer {
public:
    void onContentLoaded(ContentLoader*, ContentResult* result) override {
        for (std::size_t row = 0; row < result->getRowCount(); ++row) {
            result->setRowIndex(row);
            titles.push_back(boost::any_cast<std::string>(result->getValueAny(1)));
        }
    }
    void onContentInvalidated(ContentLoader*) override {}
    void onRuntimeDataUpdateReceived(ContentLoader*, const std::string&, const std::string&) override {}

    std::vector<std::string> titles;
};

TEST(QueryErrors, InjectionAttemptsInFiltersAreRefusedOrReadAsDataAndChangeNothing) {
    TestDirectory directory;
    const std::string database = directory.file("media.db");
    const std::string trap = "Robert'); DROP TABLE tracks;--";
    executeSql(database, "CREATE TABLE tracks(id INTEGER PRIMARY KEY, title TEXT);"
                         "CREATE TABLE secrets(word TEXT); INSERT INTO secrets VALUES ('swordfish');"
                         "INSERT INTO tracks VALUES (1, 'Blue Hour'), (2, 'Robert''); DROP TABLE tracks;--'),"
                         " (3, 'Cold Light');");
    ServiceRunner service(database);
    testkit::LogCapture log;
    Domain domain;
    host::connectToService(domain, service.url());
    const std::shared_ptr<Client> client = Context::instance(domain, nullptr)->getClient();
    ZvuMessageDispatcher& loop = *domain.getMessageDispatcher();
    ASSERT_TRUE(loop.runUntil(
        [&client]() { return client->getConnection()->getState() == Connection::StateConnected; }, GENEROUS_WAIT));

    struct Attempt {
        std::string filter;
        /// Empty: the filter is valid and finds `titles`.
        std::string refusal;
        std::vector<std::string> titles;
    };
    const std::vector<Attempt> attempts = {
        {"title='x'; DROP TABLE tracks; --", "filter:", {}},
        {"title=x; DELETE FROM tracks", "filter:", {}},
        {"id=1 OR 1=1", "filter:", {}},
        {"id=1) OR (1=1", "filter: unexpected \")\"", {}},
        {"title=x UNION SELECT word FROM secrets", "filter:", {}},
        {"secrets.word=swordfish", "filter:", {}},
        {"word=swordfish", "filter: unknown column \"word\" in table \"tracks\"", {}},
        {"id=1 /* comment */", "filter:", {}},
        // Quoted, any text is a value and nothing else.
        {"title='Robert''); DROP TABLE tracks;--'", "", {trap}},
        {"title=\"x' OR '1'='1\"", "", {}},
        {"title LIKE '%'' OR ''1''=''1'", "", {}},
        {"id=2", "", {trap}},
    };
    for (const Attempt& attempt : attempts) {
        SCOPED_TRACE(attempt.filter);
        log.clear();
        Rows rows;
        auto loader =
            std::make_shared<DefaultContentLoader>(client.get(), client->getConnection()->getMessageDispatcher());
        loader->addObserver(&rows);
        loader->load(std::make_shared<ContentQueryArguments>(CONTENT + "tracks",
                                                             std::vector<std::string>{"id", "title"}, attempt.filter,
                                                             0, 0, "id"));
        ASSERT_TRUE(loop.runUntil([&client]() { return client->core().openQueryCount() == 0; }, GENEROUS_WAIT));
        loader->removeObserver(&rows);
        EXPECT_EQ(rows.titles, attempt.titles);
        const std::vector<std::string> errors = log.messages(LogLevel::Error);
        if (attempt.refusal.empty()) {
            EXPECT_TRUE(errors.empty()) << errors.front();
            continue;
        }
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_THAT(errors.front(), HasSubstr("Query of " + CONTENT + "tracks failed: " + attempt.refusal));
    }

    auto check = tethrix::service::SqliteDatabase::openReadOnly(database);
    auto tables = check.prepare("SELECT group_concat(name, ',') FROM (SELECT name FROM sqlite_master"
                                " WHERE type = 'table' ORDER BY name)");
    ASSERT_TRUE(tables.step());
    EXPECT_EQ(tables.text(0), "secrets,tracks");
    auto count = check.prepare("SELECT count(*) FROM tracks");
    ASSERT_TRUE(count.step());
    EXPECT_EQ(count.integer(0), 3);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
