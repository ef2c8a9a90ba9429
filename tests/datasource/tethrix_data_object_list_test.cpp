// The block-cached list as a list view drives it: through a data source, the
// client library and a scripted service, with the loop run by hand.
#include "data_source_fixture.h"

#include <algorithm>
#include <utility>

namespace zarvo {
namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using Request = std::pair<int, int>;  // index, count of one query
using Requests = std::vector<Request>;

// The id a row was filled with, or -1 while its data have not arrived.
int idOf(const std::shared_ptr<DataObject>& row) {
    return row->getChildCount() == 0 ? -1 : std::static_pointer_cast<DataObjectInteger>(row->getChild(0))->getValue();
}

class TethrixDataObjectListTest : public DataSourceFixture {
protected:
    // A list source on a table of `rows` rows, loaded while the connection
    // is down, so that it has no loader yet.
    void create(std::uint64_t blockSize, std::size_t rows = 1000) {
        tableRows = rows;
        load(*makeSource(R"(<sources><songs uri="com.tavelorix.content/songs" type="list" block_size=")" +
                         std::to_string(blockSize) +
                         R"("><field name="id" type="int"/><field name="title" type="string"/></songs></sources>)"));
        list = at<TethrixDataObjectList>("songs");
        recorder.watch(*list, "list");
    }

    // Created, started, and its first row delivered.
    void start(std::uint64_t blockSize, std::size_t rows = 1000) {
        create(blockSize, rows);
        setState(Connection::StateConnected);
        deliver();
        requests();
        recorder.clear();
    }

    // The queries sent since the last call, as (index, count).
    Requests requests() {
        collect();
        return std::exchange(unseen, {});
    }

    // Answers every open query from the table, then runs the loop.
    void deliver() {
        collect();
        for (const auto& query : std::exchange(pending, {})) {
            const std::size_t begin = std::min<std::size_t>(query.index, tableRows);
            const std::size_t count = query.count == 0 ? tableRows : static_cast<std::size_t>(query.count);
            answer(query, begin, std::min(begin + count, tableRows));
        }
        host.runUntilIdle();
    }

    // Answers the oldest open query with the table's rows [begin, end).
    void deliverRows(std::size_t begin, std::size_t end) {
        collect();
        answer(pending.front(), begin, end);
        pending.erase(pending.begin());
        host.runUntilIdle();
    }

    void acquireAll(std::uint64_t first, std::uint64_t end) {
        for (std::uint64_t index = first; index < end; ++index) {
            list->acquireItem(index);
        }
    }

    const TethrixDataObjectList::Cache& cache() const { return list->getCache(); }

    std::shared_ptr<TethrixDataObjectList> list;
    std::size_t tableRows = 0;

private:
    void collect() {
        for (auto& query : service.takeQueries()) {
            unseen.emplace_back(query.index, query.count);
            pending.push_back(std::move(query));
        }
    }

    void answer(const testkit::RecordedQuery& query, std::size_t begin, std::size_t end) {
        Rows rows;
        for (std::size_t row = begin; row < end; ++row) {
            rows.push_back({boost::any(static_cast<int>(row)), boost::any("song " + std::to_string(row))});
        }
        service.reply(query, {{"id", ContentDataTypeInteger}, {"title", ContentDataTypeString}}, std::move(rows),
                      begin);
    }

    std::vector<testkit::RecordedQuery> pending;
    Requests unseen;
};

TEST_F(TethrixDataObjectListTest, GrowsFromOneRowThroughReadAheadBlockByBlock) {
    create(10);
    EXPECT_EQ(list->itemCount(), 0u);
    setState(Connection::StateConnected);  // the source starts loading
    EXPECT_THAT(requests(), ElementsAre(Request(0, 1)));
    deliver();
    EXPECT_EQ(list->itemCount(), 1u);
    EXPECT_THAT(recorder.take(), ElementsAre("list"));

    // Block n + 1 is asked for when the last row of block n is acquired.
    std::vector<std::uint64_t> requestedAt;
    for (std::uint64_t index = 0; index < 30; ++index) {
        ASSERT_LT(index, list->itemCount());
        list->acquireItem(index);
        if (!requests().empty()) {
            requestedAt.push_back(index);
        }
        list->releaseItem(index);
        deliver();
    }
    EXPECT_THAT(requestedAt, ElementsAre(0u, 9u, 19u, 29u));
    EXPECT_EQ(list->itemCount(), 40u);
}

TEST_F(TethrixDataObjectListTest, RowAcquiredBeforeItsDataIsTheObjectThatIsFilled) {
    start(10);
    auto row = list->acquireItem(25);
    EXPECT_EQ(row->getName(), "row25");
    EXPECT_EQ(idOf(row), -1);
    recorder.watch(*row, "row25");
    EXPECT_THAT(requests(), ElementsAre(Request(20, 10)));

    deliver();
    EXPECT_EQ(idOf(row), 25);
    EXPECT_EQ(list->itemCount(), 30u);
    EXPECT_EQ(list->getItem(25), row);
    // The row is announced before its values are written; then the grown
    // list tells the view to bind afresh.
    EXPECT_THAT(recorder.take(), ElementsAre("row25", "list"));
    EXPECT_EQ(list->acquireItem(25), row);
}

TEST_F(TethrixDataObjectListTest, LowestWaitingRowLoadsFirstOneLoadAtATime) {
    start(10);
    for (std::uint64_t index : {55, 31, 7}) {
        list->acquireItem(index);
    }
    EXPECT_THAT(requests(), ElementsAre(Request(50, 10)));
    EXPECT_THAT(list->getLoadingQueue(), ElementsAre(7u, 31u, 55u));
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(0, 10)));
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(30, 10)));
    deliver();
    EXPECT_THAT(list->getLoadingQueue(), IsEmpty());
}

TEST_F(TethrixDataObjectListTest, ScrollingBackwardLoadsOnlyWhatIsMissing) {
    start(10);
    for (std::uint64_t index = 99; index > 92; --index) {
        list->acquireItem(index);
    }
    deliver();
    // Hits while moving backward read nothing ahead, although nothing was
    // read ahead yet; the first miss loads at once, the rest wait.
    for (std::uint64_t index = 92; index > 60; --index) {
        list->acquireItem(index);
    }
    EXPECT_THAT(requests(), ElementsAre(Request(90, 10), Request(80, 10)));
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(60, 10)));
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(70, 10)));
    deliver();
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(TethrixDataObjectListTest, ReferencesResetAndListNotifiesOnlyWhenTheCountGrew) {
    start(10);
    list->acquireItem(0);
    deliver();
    list->acquireItem(55);
    acquireAll(0, 5);
    requests();
    recorder.clear();
    std::vector<std::shared_ptr<DataObject>> held;
    for (std::uint64_t index = 0; index < 5; ++index) {
        held.push_back(list->getItem(index));
    }

    // Rows below the count change no count: the references stay, and the
    // row still missing is asked for again.
    deliverRows(3, 4);
    EXPECT_THAT(recorder.take(), IsEmpty());
    EXPECT_THAT(cache().getReferencedItems(), ElementsAre(Key(0u), Key(1u), Key(2u), Key(3u), Key(4u), Key(55u)));
    EXPECT_THAT(requests(), ElementsAre(Request(50, 10)));

    // Rows past the count: every reference goes, rows and data stay.
    deliver();
    EXPECT_THAT(recorder.take(), ElementsAre("list"));
    EXPECT_THAT(cache().getReferencedItems(), IsEmpty());
    for (std::uint64_t index = 0; index < 5; ++index) {
        EXPECT_EQ(cache().getUnreferencedItems().at(index), held[index]);
        EXPECT_EQ(idOf(held[index]), static_cast<int>(index));
    }
    // A view that still releases what it held before does no harm.
    list->releaseItem(2);
    EXPECT_EQ(cache().getUnreferencedItems().at(2), held[2]);
}

TEST_F(TethrixDataObjectListTest, ReleasedWaitingRowIsNotLoadedAndCountsAsLoaded) {
    start(10);
    list->acquireItem(55);
    auto row = list->acquireItem(42);
    list->releaseItem(42);
    EXPECT_THAT(list->getLoadingQueue(), ElementsAre(55u));
    deliver();
    list->acquireItem(55);
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(50, 10), Request(50, 10)));

    // The row went back empty, yet it is a hit now: nothing asks for its
    // block, and it stays empty until some load covers it.
    EXPECT_EQ(list->acquireItem(42), row);
    EXPECT_THAT(list->getLoadingQueue(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(idOf(row), -1);
}

TEST_F(TethrixDataObjectListTest, RowPastTheEndIsAskedForUntilReleased) {
    start(10, 25);
    list->acquireItem(27);
    deliver();
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(20, 10), Request(20, 10), Request(20, 10)));
    EXPECT_EQ(list->itemCount(), 25u);

    list->releaseItem(27);
    for (int turn = 0; turn < 3; ++turn) {
        deliver();
    }
    EXPECT_EQ(service.openQueryCount(), 0u);
    EXPECT_THAT(list->getLoadingQueue(), IsEmpty());
}

TEST_F(TethrixDataObjectListTest, AReadAheadLostWithTheConnectionIsAskedAgain) {
    start(10);
    list->acquireItem(0);  // a hit: block 0 is read ahead
    EXPECT_THAT(requests(), ElementsAre(Request(0, 10)));
    setState(Connection::StateLost);  // the read-ahead goes with the loader
    list->acquireItem(0);             // and a read-ahead while no loader is there
    setState(Connection::StateConnected);
    EXPECT_THAT(requests(), ElementsAre(Request(0, 1)));
    deliver();
    EXPECT_THAT(requests(), ElementsAre(Request(0, 10)));
}

TEST_F(TethrixDataObjectListTest, QueueWaitsForALoaderAndRetriesOnTheNextAcquire) {
    create(10);
    list->acquireItem(25);
    EXPECT_FALSE(list->isLoading());
    EXPECT_THAT(list->getLoadingQueue(), ElementsAre(25u));

    setState(Connection::StateConnected);
    list->acquireItem(3);
    EXPECT_THAT(requests(), ElementsAre(Request(0, 1), Request(0, 10)));
    EXPECT_TRUE(list->isLoading());
}

TEST_F(TethrixDataObjectListTest, UnpagedListNeverLoadsReleasesOrPurges) {
    start(0, 30);
    EXPECT_EQ(list->itemCount(), 30u);
    list->acquireItem(40);
    EXPECT_THAT(list->getLoadingQueue(), ElementsAre(40u));
    for (std::uint64_t index = 0; index < 30; ++index) {
        list->acquireItem(index);
        list->releaseItem(index);
    }
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(cache().getReferencedItems().size(), 31u);
}

class PurgeTest : public TethrixDataObjectListTest, public testing::WithParamInterface<std::uint64_t> {};

// The adapter's part is played by hand: rows 0 .. n - 1 delivered in order,
// then one row acquired and released.
TEST_P(PurgeTest, ReleasePurgesOnlyPastFiveBlocksOldestFirst) {
    const std::uint64_t delivered = GetParam();
    create(10);
    for (std::uint64_t index = 0; index < delivered; ++index) {
        list->notifyItemLoaded(index, list->getItem(index));
    }
    list->notifyLoadingFinished();
    list->acquireItem(60);
    list->releaseItem(60);
    const bool purged = delivered + 1 > 50;
    EXPECT_EQ(cache().getUnreferencedItems().count(0), purged ? 0u : 1u);
    EXPECT_EQ(cache().residentItemCount(), purged ? 50u : delivered + 1);
    EXPECT_EQ(cache().getUnreferencedItems().count(60), 1u);
}

INSTANTIATE_TEST_SUITE_P(FiftyOrFiftyOne, PurgeTest, testing::Values(49u, 50u));

TEST_F(TethrixDataObjectListTest, ItemTemplateIsTheLowestReferencedRowElseTheAdaptersTemplate) {
    create(10);
    EXPECT_EQ(list->getItemTemplate(), source->findSource("songs")->getItemTemplate());
    EXPECT_EQ(list->getItemTemplate()->getName(), "songsItem");
    auto row7 = list->acquireItem(7);
    auto row3 = list->acquireItem(3);
    EXPECT_EQ(list->getItemTemplate(), row3);
    list->releaseItem(3);
    EXPECT_EQ(list->getItemTemplate(), row7);

    auto detached = std::make_shared<TethrixDataObjectList>(&host.domain(), "detached", nullptr, 10);
    auto empty = detached->getItemTemplate();
    EXPECT_EQ(empty->getName(), "empty");
    EXPECT_NE(detached->getItemTemplate(), empty);
}

// A row referenced and released again and again goes to the back of the
// purge order each time; the entries it leaves behind are dropped from the
// order's storage on the way, and the order stays exact.
TEST(TethrixDataObjectListCacheTest, PurgeOrderStaysExactWhileReferencesComeAndGo) {
    TethrixDataObjectList::Cache cache;
    for (std::uint64_t index = 0; index < 3; ++index) {
        cache.getItem(nullptr, index);
        cache.notifyLoaded(index);
    }
    for (int round = 0; round < 1000; ++round) {
        cache.referenceItem(nullptr, 1);
        cache.unreferenceItem(1);
    }
    EXPECT_THAT(cache.getUnreferencedOrder(), ElementsAre(0u, 2u, 1u));
    cache.purge(2);
    EXPECT_THAT(cache.getUnreferencedItems(), ElementsAre(testing::Key(1u)));
}

}  // namespace
}  // namespace test
}  // namespace zarvo
