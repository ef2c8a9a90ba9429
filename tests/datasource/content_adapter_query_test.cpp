// The queries that configured sources send, as the service sees them.

#include "data_source_fixture.h"

#include "datasource/content_adapter.h"

#include <gmock/gmock.h>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const MEDIA = R"(
<sources>
  <tracks uri="com.tavelorix.content/tracks" type="list" block_size="50" sort="title" filter="genre=rock">
    <field name="title" type="string"/>
    <field name="cover" column="art" type="string"/>
  </tracks>
  <now uri="content://com.tavelorix.content/now_playing">
    <field name="title" type="string"/>
    <field name="position" type="int"/>
  </now>
  <charts uri="com.tavelorix.content/charts" block_size="0" limit_index="10" limit_count="5">
    <field name="rank" type="int"/>
  </charts>
  <wide uri="com.tavelorix.content/wide" block_size="0" limit_index="4294967297" limit_count="4294967295"/>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums">
    <field name="title" type="string"/>
  </dynamic_source>
</sources>)";

struct ExpectedQuery {
    std::string uri;
    std::vector<std::string> columns;
    std::string filter;
    int index;
    int count;
    std::string sort;
};

void expectQueries(const std::vector<testkit::RecordedQuery>& actual, const std::vector<ExpectedQuery>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("query " + std::to_string(i) + " " + expected[i].uri);
        EXPECT_EQ(actual[i].uri, expected[i].uri);
        EXPECT_EQ(actual[i].columns, expected[i].columns);
        EXPECT_EQ(actual[i].filter, expected[i].filter);
        EXPECT_EQ(actual[i].index, expected[i].index);
        EXPECT_EQ(actual[i].count, expected[i].count);
        EXPECT_EQ(actual[i].sort, expected[i].sort);
    }
}

// What a start of every ordinary adapter sends: one row from row 0 unless
// block-wise reading is off, in which case the configured limits, cut to 32 bits.
const std::vector<ExpectedQuery> FIRST_QUERIES = {
    {"content://com.tavelorix.content/tracks", {"title", "art"}, "genre=rock", 0, 1, "title"},
    {"content://com.tavelorix.content/now_playing", {"title", "position"}, "", 0, 1, ""},
    {"content://com.tavelorix.content/charts", {"rank"}, "", 10, 5, ""},
    {"content://com.tavelorix.content/wide", {}, "", 1, -1, ""},
};

class SourceQueries : public DataSourceFixture {
protected:
    void SetUp() override {
        source = makeSource(MEDIA);
        load(*source);
    }

    std::shared_ptr<ContentAdapter> adapter(const std::string& name) { return source->findSource(name); }

    std::shared_ptr<ZarvoTethrixDataSource> source;
};

TEST_F(SourceQueries, NothingIsSentBeforeTheConnectionIsUp) {
    EXPECT_THAT(service.queries(), IsEmpty());
    EXPECT_EQ(service.liveLoaderCount(), 0u);
}

TEST_F(SourceQueries, EachOrdinaryAdapterSendsItsFirstQueryWhenTheConnectionComesUp) {
    setState(Connection::StateConnected);
    expectQueries(service.queries(), FIRST_QUERIES);
    EXPECT_EQ(service.liveLoaderCount(), FIRST_QUERIES.size());
}

TEST_F(SourceQueries, TreeHoldsDynamicSourcesAheadOfOrdinaryOnes) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < source->getData()->getChildCount(); ++i) {
        names.push_back(source->getData()->getChild(i)->getName());
    }
    EXPECT_THAT(names, ElementsAre("connected", "albums", "tracks", "now_playing", "charts", "wide"));
    EXPECT_EQ(source->getData()->findChild("tracks")->getType(), DataObject::TypeList);
    EXPECT_EQ(source->getData()->findChild("now_playing")->getChildCount(), 2u);
}

TEST_F(SourceQueries, ConnectionLostAndBackGivesNewLoadersAndTheSameQueriesAgain) {
    setState(Connection::StateConnected);
    std::shared_ptr<DataObject> tracksBefore = source->getData()->findChild("tracks");
    service.takeQueries();

    setState(Connection::StateLost);
    EXPECT_EQ(service.liveLoaderCount(), 0u);
    EXPECT_THAT(service.queries(), IsEmpty());

    setState(Connection::StateConnected);
    expectQueries(service.queries(), FIRST_QUERIES);
    EXPECT_EQ(service.liveLoaderCount(), FIRST_QUERIES.size());
    // The tree keeps its objects across the loss.
    EXPECT_EQ(source->getData()->findChild("tracks"), tracksBefore);
}

TEST_F(SourceQueries, LoadItemsUsesTheCallersRowsOnlyWhileBlockSizeIsSet) {
    setState(Connection::StateConnected);
    service.takeQueries();

    EXPECT_TRUE(adapter("tracks")->loadItems(100, 50));
    EXPECT_TRUE(adapter("charts")->loadItems(5, 10));
    EXPECT_TRUE(adapter("tracks")->loadItems(0x100000007ul, 0x100000002ul));  // cut to 32 bits

    const std::vector<testkit::RecordedQuery> queries = service.queries();
    ASSERT_EQ(queries.size(), 3u);
    EXPECT_EQ(queries[0].index, 100);
    EXPECT_EQ(queries[0].count, 50);
    EXPECT_EQ(queries[1].index, 10);
    EXPECT_EQ(queries[1].count, 5);
    EXPECT_EQ(queries[2].index, 7);
    EXPECT_EQ(queries[2].count, 2);
}

TEST_F(SourceQueries, FilterIsReadFromTheConfigurationAtEachQuery) {
    setState(Connection::StateConnected);
    service.takeQueries();

    adapter("tracks")->getConfig()->filter = "genre=jazz";
    adapter("tracks")->loadItems(0, 50);

    ASSERT_EQ(service.queries().size(), 1u);
    EXPECT_EQ(service.queries()[0].filter, "genre=jazz");
}

}  // namespace
}  // namespace test
}  // namespace zarvo
