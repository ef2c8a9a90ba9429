// The queries that configured sources send, as the service sees them.

#include "data_source_fixture.h"

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const media = R"(
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

// One query as "uri columns|filter|index|count|sort".
std::vector<std::string> describe(const std::vector<testkit::RecordedQuery>& queries) {
    std::vector<std::string> lines;
    for (const auto& query : queries) {
        std::string columns;
        for (const auto& column : query.columns) {
            columns += column + ",";
        }
        lines.push_back(query.uri.substr(query.uri.rfind('/') + 1) + " " + columns + "|" + query.filter + "|" +
                        std::to_string(query.index) + "|" + std::to_string(query.count) + "|" + query.sort);
    }
    return lines;
}

class SourceQueries : public DataSourceFixture {
protected:
    void SetUp() override { load(*makeSource(media)); }
};

TEST_F(SourceQueries, EachOrdinaryAdapterSendsItsFirstQueryEachTimeTheConnectionComesUp) {
    EXPECT_THAT(service.queries(), IsEmpty());
    EXPECT_EQ(service.liveLoaderCount(), 0u);
    // The tree holds dynamic sources ahead of ordinary ones.
    EXPECT_THAT(childNames(*source->getData()),
                ElementsAre("connected", "albums", "tracks", "now_playing", "charts", "wide"));
    EXPECT_EQ(at("tracks")->getType(), DataObject::TypeList);
    EXPECT_EQ(at("now_playing")->getChildCount(), 2u);
    const std::shared_ptr<DataObject> tracksBefore = at("tracks");

    // One row from row 0 unless block-wise reading is off, in which case the
    // configured limits, cut to 32 bits.
    for (int round = 0; round < 2; ++round) {
        setState(Connection::StateConnected);
        EXPECT_THAT(describe(service.takeQueries()),
                    ElementsAre("tracks title,art,|genre=rock|0|1|title", "now_playing title,position,||0|1|",
                                "charts rank,||10|5|", "wide ||1|-1|"));
        EXPECT_EQ(service.liveLoaderCount(), 4u);
        setState(Connection::StateLost);
        EXPECT_EQ(service.liveLoaderCount(), 0u);
        EXPECT_THAT(service.queries(), IsEmpty());
    }
    // The tree keeps its objects across the loss.
    EXPECT_EQ(at("tracks"), tracksBefore);
}

TEST_F(SourceQueries, LoadItemsUsesTheCallersRowsOnlyWhileBlockSizeIsSetAndTheFilterOfTheMoment) {
    setState(Connection::StateConnected);
    service.takeQueries();

    EXPECT_TRUE(source->findSource("tracks")->loadItems(100, 50));
    EXPECT_TRUE(source->findSource("charts")->loadItems(5, 10));
    EXPECT_TRUE(source->findSource("tracks")->loadItems(0x100000007ul, 0x100000002ul));  // cut to 32 bits
    source->findSource("tracks")->getConfig()->filter = "genre=jazz";
    source->findSource("tracks")->loadItems(0, 50);

    EXPECT_THAT(describe(service.queries()),
                ElementsAre("tracks title,art,|genre=rock|100|50|title", "charts rank,||10|5|",
                            "tracks title,art,|genre=rock|7|2|title", "tracks title,art,|genre=jazz|0|50|title"));
}

}  // namespace
}  // namespace test
}  // namespace zarvo
