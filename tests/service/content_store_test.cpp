// Content queries against real SQLite databases: projections, types, NULLs,
// limits, errors, and deep blocks that must equal what a plain scan gives.
#include "content_store.h"
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>
#include <zarvo/testkit/thrown.h>
#include "query_error.h"
#include "query_worker.h"

#include <gtest/gtest.h>

#include <tethrix/protocol/result_frame.h>

#include <algorithm>
#include <future>
#include <random>

namespace tethrix::service {
namespace {

using namespace zarvo::testkit;

using protocol::ColumnType;
using protocol::RequestId;
using protocol::Value;

const std::string tracksUri = "content://com.tavelorix.content/tracks";

protocol::Query query(const std::string& uri, std::vector<std::string> columns = {}, std::string filter = "",
                      std::string sort = "", int index = 0, int count = 0) {
    return protocol::Query{1, uri, std::move(columns), std::move(filter), std::move(sort), index, count};
}

class ContentStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        database = directory.path() / "media.db";
        zarvo::testkit::executeSql(database, zarvo::testkit::tracksScript(3000) + R"(
            INSERT INTO tracks VALUES (3001, NULL, NULL, NULL, NULL, NULL);
            CREATE TABLE scores(name TEXT, value INTEGER, grp TEXT);
            WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1500)
              INSERT INTO scores SELECT 'n' || (i % 37), CASE WHEN i % 11 = 0 THEN NULL ELSE i % 13 END,
                                        CASE WHEN i % 7 = 0 THEN NULL ELSE char(65 + i % 4) END FROM n;
            CREATE TABLE tags(tag TEXT PRIMARY KEY, weight INTEGER NOT NULL) WITHOUT ROWID;
            WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 700)
              INSERT INTO tags SELECT 'tag' || i, i % 9 FROM n;
            CREATE TABLE odd("rowid" TEXT, "_rowid_" TEXT, "oid" TEXT, v INTEGER);
            WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 400)
              INSERT INTO odd SELECT 'r' || i, NULL, NULL, i % 5 FROM n;
            CREATE VIEW favourites AS SELECT * FROM tracks WHERE favourite;
        )");
        store = std::make_unique<ContentStore>(database.string(), defaultAuthority);
    }

    protocol::Result run(const protocol::Query& q) { return store->execute(q); }

    std::string errorOf(const protocol::Query& q) {
        return thrownMessage<QueryError>([&] { store->execute(q); });
    }

    TemporaryDirectory directory;
    std::filesystem::path database;
    std::unique_ptr<ContentStore> store;
};

TEST_F(ContentStoreTest, ProjectionIsTheQueryColumnsInOrderWithTheirTypesAndNullIsTheZeroValue) {
    auto result = run(query(tracksUri, {"favourite", "TITLE", "duration", "id", "title"}, "", "", 2, 1));
    const std::vector<protocol::Column> expected = {{"favourite", ColumnType::boolean},
                                                    {"TITLE", ColumnType::text},  // spelt as asked
                                                    {"duration", ColumnType::real},
                                                    {"id", ColumnType::integer},
                                                    {"title", ColumnType::text}};
    EXPECT_EQ(result.columns, expected);
    EXPECT_EQ(result.rows, (std::vector<std::vector<Value>>{
                               {true, std::string("Track 00003"), 4.5, std::int64_t{3}, std::string("Track 00003")}}));
    // No columns: all of them in table order. A NULL is its type's zero.
    auto all = run(query(tracksUri, {}, "id=3001"));
    std::vector<std::string> names;
    for (const auto& column : all.columns)
        names.push_back(column.name);
    EXPECT_EQ(names, (std::vector<std::string>{"id", "title", "artist_id", "duration", "favourite", "cover"}));
    EXPECT_EQ(all.rows, (std::vector<std::vector<Value>>{
                            {std::int64_t{3001}, std::string(), std::int64_t{0}, 0.0, false, std::string()}}));
}

TEST_F(ContentStoreTest, IndexAndCountSelectTheBlock) {
    auto block = run(query(tracksUri, {"id"}, "", "", 10, 3));
    EXPECT_EQ(block.startIndex, 10u);
    EXPECT_EQ(block.rows,
              (std::vector<std::vector<Value>>{{std::int64_t{11}}, {std::int64_t{12}}, {std::int64_t{13}}}));

    auto rest = run(query(tracksUri, {"id"}, "", "", 2995, 0));  // count 0: no limit
    EXPECT_EQ(rest.rows.size(), 6u);

    for (int beyond : {3001, 5000, 2147483647}) {
        auto none = run(query(tracksUri, {"id"}, "", "", beyond, 200));
        EXPECT_EQ(none.startIndex, static_cast<std::uint64_t>(beyond));
        EXPECT_TRUE(none.rows.empty());
    }
}

TEST_F(ContentStoreTest, UnansweredQueriesSayWhyAndNamesIgnoreCase) {
    const std::vector<std::pair<protocol::Query, std::string>> cases = {
        {query("content://other.authority/tracks"), "unknown authority \"other.authority\""},
        {query("content://com.tavelorix.content/nope"), "unknown table \"nope\""},
        {query("content://com.tavelorix.content/favourites"), "unknown table \"favourites\""},
        {query("content://com.tavelorix.content/sqlite_schema"), "unknown table \"sqlite_schema\""},
        {query("content://com.tavelorix.content"), "uri \"content://com.tavelorix.content\" names no table"},
        {query("servicedata://player"), "uri \"servicedata://player\" does not start with content://"},
        {query(tracksUri, {"title", "artst"}), "unknown column \"artst\" in table \"tracks\""},
        {query(tracksUri, {}, "", "", -1, 1), "index must not be negative"},
        {query(tracksUri, {}, "", "", 0, -200), "count must not be negative"},
    };
    for (const auto& [q, reason] : cases)
        EXPECT_EQ(errorOf(q), reason);

    EXPECT_EQ(run(query("content://COM.Tavelorix.content/TRACKS", {"id"}, "", "", 0, 1)).rows.size(), 1u);
    ContentStore other(database.string(), "org.example.media");
    EXPECT_EQ(other.execute(query("content://org.example.media/tracks", {"id"}, "", "", 0, 2)).rows.size(), 2u);
    EXPECT_THROW(other.execute(query(tracksUri)), QueryError);
}

struct Ordering {
    std::string table;
    std::string filter;
    std::string sort;
};

std::vector<Ordering> orderings() {
    return {
        {"tracks", "", ""},
        {"tracks", "artist_id=3", ""},
        {"tracks", "", "title DESC"},
        {"tracks", "", "artist_id, duration DESC"},
        {"tracks", "", "cover"},                                      // NULLs first, then text
        {"tracks", "favourite=true OR cover IS NULL", "cover DESC"},  // NULLs last
        {"tracks", "", "favourite DESC, artist_id DESC"},
        {"scores", "", "grp, value DESC"},  // many duplicates and NULLs
        {"scores", "", "value"},
        {"scores", "", "value DESC"},  // only 13 values: the tie-breaker decides
        {"scores", "name LIKE 'n1%'", "grp DESC, name"},
        {"tags", "", "weight DESC"},  // WITHOUT ROWID: the key breaks ties
        {"odd", "", "v"},             // no rowid to break ties with
    };
}

TEST_F(ContentStoreTest, DeepBlocksEqualThePlainScanInAnyOrderOfAccess) {
    std::mt19937 random(7);
    for (const auto& ordering : orderings()) {
        SCOPED_TRACE(ordering.table + " / " + ordering.filter + " / " + ordering.sort);
        std::string uri = "content://com.tavelorix.content/" + ordering.table;
        ContentStore fresh(database.string(), defaultAuthority);
        auto all = fresh.execute(query(uri, {}, ordering.filter, ordering.sort)).rows;
        ASSERT_GT(all.size(), 300u);

        const int blockSize = 50;
        int blocks = static_cast<int>((all.size() + blockSize - 1) / blockSize) + 1;
        std::vector<int> order(static_cast<std::size_t>(blocks));
        for (int i = 0; i < blocks; ++i)
            order[static_cast<std::size_t>(i)] = i;
        std::shuffle(order.begin(), order.end(), random);
        for (int block : order) {
            int index = block * blockSize;
            auto rows = fresh.execute(query(uri, {}, ordering.filter, ordering.sort, index, blockSize)).rows;
            auto from = std::min(all.size(), static_cast<std::size_t>(index));
            auto to = std::min(all.size(), from + blockSize);
            ASSERT_EQ(rows, std::vector<std::vector<Value>>(all.begin() + static_cast<long>(from),
                                                            all.begin() + static_cast<long>(to)))
                << "block at " << index;
        }
        // Odd offsets too, between the index's checkpoints.
        for (int index : {127, 128, 129, 255, 256, 257, static_cast<int>(all.size()) - 1}) {
            auto rows = fresh.execute(query(uri, {}, ordering.filter, ordering.sort, index, 1)).rows;
            ASSERT_EQ(rows.size(), 1u) << index;
            EXPECT_EQ(rows[0], all[static_cast<std::size_t>(index)]) << index;
        }
    }
}

TEST_F(ContentStoreTest, PagingOnInFramesEqualsThePlainScanAndFollowsChanges) {
    // Each block after a full one starts from the key of its last row.
    auto page = [this](const std::string& uri, const Ordering& ordering, int blockSize) {
        std::vector<std::vector<Value>> rows;
        for (int index = 0;; index += blockSize) {
            auto frame = store->executeFrame(query(uri, {}, ordering.filter, ordering.sort, index, blockSize));
            std::string error;
            auto result = protocol::decodeResultFrame(frame.bytes, error);
            EXPECT_TRUE(result) << error;
            if (!result || result->rows.empty())
                return rows;
            EXPECT_EQ(result->rows.size(), frame.rows);
            rows.insert(rows.end(), result->rows.begin(), result->rows.end());
        }
    };
    for (const auto& ordering : orderings()) {
        SCOPED_TRACE(ordering.table + " / " + ordering.filter + " / " + ordering.sort);
        std::string uri = "content://com.tavelorix.content/" + ordering.table;
        EXPECT_EQ(page(uri, ordering, 64), run(query(uri, {}, ordering.filter, ordering.sort)).rows);
    }
    // A change between two blocks is seen by the next one.
    store->executeFrame(query(tracksUri, {"id"}, "", "", 0, 100));
    executeSql(database, "DELETE FROM tracks WHERE id <= 150;");
    auto frame = store->executeFrame(query(tracksUri, {"id"}, "", "", 100, 1));
    std::string error;
    EXPECT_EQ(protocol::decodeResultFrame(frame.bytes, error)->rows[0][0], Value(std::int64_t{251}));
}

/// Answers of a worker, as a client of it waits for them.
class WorkerClient {
public:
    WorkerClient(QueryWorker& worker, const void* self) : worker(worker), self(self) {}

    QueryAnswer ask(protocol::Query q) {
        std::promise<QueryAnswer> answer;
        worker.submit(self, std::move(q), true, std::make_shared<std::atomic<bool>>(false),
                      [&answer](QueryAnswer a) { answer.set_value(std::move(a)); });
        return answer.get_future().get();
    }

private:
    QueryWorker& worker;
    const void* self;
};

TEST_F(ContentStoreTest, BlocksReadAheadAreSentOnlyWhileTheDataAreUnchanged) {
    std::vector<std::unique_ptr<ContentStore>> stores;
    stores.push_back(std::make_unique<ContentStore>(database.string(), defaultAuthority));
    QueryWorker::ReadAhead readAhead;
    readAhead.probe = std::make_unique<DataVersionProbe>(database.string());
    readAhead.maxBytes = 1 << 20;
    // One thread: another client's answer comes after the block read ahead.
    QueryWorker worker(std::move(stores), std::chrono::milliseconds(10000), false, std::move(readAhead));
    int pager = 0;
    int other = 0;
    WorkerClient client(worker, &pager);
    WorkerClient bystander(worker, &other);
    auto firstId = [](const QueryAnswer& answer) {
        std::string error;
        auto result = protocol::decodeResultFrame(answer.frame, error);
        EXPECT_TRUE(result) << error;
        return result ? std::make_pair(result->id, result->rows.at(0).at(0)) : std::make_pair(RequestId{}, Value());
    };

    int id = 10;
    for (int index : {0, 100, 200}) {
        auto q = query(tracksUri, {"id"}, "", "", index, 100);
        q.id = ++id;
        auto answer = client.ask(q);
        EXPECT_EQ(answer.id, q.id);
        EXPECT_EQ(firstId(answer), std::make_pair(RequestId(q.id), Value(std::int64_t{index + 1})));
    }
    bystander.ask(query(tracksUri, {"id"}, "", "", 0, 1));
    executeSql(database, "DELETE FROM tracks WHERE id <= 10;");
    auto q = query(tracksUri, {"id"}, "", "", 300, 100);
    q.id = 99;
    EXPECT_EQ(firstId(client.ask(q)), std::make_pair(RequestId(99), Value(std::int64_t{311})));
}

TEST(QueryAnswerTest, AResultTooLargeForAFrameIsRefusedWithItsReason) {
    TemporaryDirectory directory;
    const std::string database = directory.file("big.db");
    // A control character takes six bytes in a frame: 12 MB of them pass
    // the store's estimate of the size, but not the frame's limit.
    executeSql(
        database,
        "CREATE TABLE big(t TEXT);"
        "INSERT INTO big SELECT replace(hex(zeroblob(3000000)), '0', char(1)) FROM (SELECT 1 UNION ALL SELECT 2);");
    ContentStore store(database, defaultAuthority);
    const QueryAnswer answer = answerQuery(store, query("content://com.tavelorix.content/big", {"t"}));
    EXPECT_EQ(answer.rows, 0u);
    EXPECT_EQ(answer.error, "result too large: more than 67108864 bytes, ask for fewer rows");
    EXPECT_LT(answer.frame.size(), 200u);
}

}  // namespace
}  // namespace tethrix::service
