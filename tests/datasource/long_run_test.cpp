// A data source over a long run: reloads, keys and scrolling free what they
// replace, and configurations that cannot work are refused without a crash.

#include "data_source_fixture.h"

namespace zarvo {
namespace test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

/// Every kind of ring a tree can hold: a paged list, a list field of a
/// single record, rows with dynamic-source lists, a runtime list and a
/// runtime dynamic-source list.
const char* const everyKind = R"(<sources>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums"><field name="title" type="string"/></dynamic_source>
  <artists uri="com.tavelorix.content/artists" type="list" block_size="10">
    <field name="name" type="string"/>
    <field name="albums" column="album_ids" type="list" dynamic_source="albums" lookup_column="id"/>
  </artists>
  <now uri="com.tavelorix.content/now"><field name="tags" type="list"/></now>
  <player uri="servicedata://player">
    <list name="queue"><template name="entry"><string name="title"/></template></list>
    <string name="recent" dynamic_source="albums" lookup_column="id"/>
  </player>
</sources>)";

class LongRun : public DataSourceFixture {
protected:
    void SetUp() override {
        service.serve("content://com.tavelorix.content/artists",
                      {{{"name", ContentDataTypeString}, {"album_ids", ContentDataTypeString}},
                       100,
                       [](std::size_t row, std::size_t column) -> boost::any {
                           return column == 0 ? "artist " + std::to_string(row) : std::string("1;2");
                       }});
        service.serve("content://com.tavelorix.content/albums",
                      {{{"title", ContentDataTypeString}}, 10, [](std::size_t row, std::size_t) -> boost::any {
                           return "album " + std::to_string(row);
                       }});
    }
};

TEST_F(LongRun, ReloadFreesTheWholeOldTree) {
    start(everyKind);
    push(R"({"values": {"queue": [{"title": "A"}, {"title": "B"}], "recent": "1;2"}})");
    auto artists = at<DataObjectList>("artists");
    for (std::size_t row = 0; row < 30; ++row) {
        artists->acquireItem(row);
        host.runUntilIdle();
    }
    at<DataObjectList>("queue")->acquireItem(1);
    at<DataObjectList>("now.tags")->getItemTemplate();
    const std::size_t loadersOfOneLoad = service.liveLoaderCount();

    std::vector<std::weak_ptr<void>> old = {source->getData(), artists};
    for (const auto& adapter : source->getAdapters()) {
        old.push_back(adapter);
    }
    artists.reset();
    for (int reload = 0; reload < 3; ++reload) {
        source->stop();
        source->start();
        host.runUntilIdle();
    }

    for (const auto& object : old) {
        EXPECT_TRUE(object.expired());
    }
    EXPECT_LE(service.liveLoaderCount(), loadersOfOneLoad);
}

TEST_F(LongRun, ChildAdaptersOfKeysDoNotGather) {
    start(everyKind);
    auto recent = at<DataObjectList>("recent");
    auto queue = at<DataObjectList>("queue");
    push(R"({"values": {"queue": [{"title": "A"}]}})");

    for (int change = 0; change < 500; ++change) {
        push(std::string(R"({"values": {"recent": ")") + (change % 2 ? "1;2" : "2;1") + "\"}}");
        queue->releaseItem(0);
        queue->acquireItem(0);
    }

    EXPECT_EQ(recent->itemCount(), 2u);
    EXPECT_LT(service.liveLoaderCount(), 50u);
    EXPECT_LT(queue->getChildCount(), 20u);
    for (const auto& adapter : source->getAdapters()) {
        EXPECT_LT(adapter->getAdapters().size(), 50u) << adapter->getConfig()->name;
    }
}

TEST_F(LongRun, ConfigurationsThatCannotWorkAreRefusedWithoutACrash) {
    load(*makeSource(R"(<sources>
      <dynamic_source uri="com.tavelorix.content/tracks" name="tracks"><field name="title" type="string"/></dynamic_source>
      <dynamic_source uri="com.tavelorix.content/albums" name="albums">
        <field name="title" type="string"/>
        <field name="tracks" column="track_ids" type="list" dynamic_source="tracks" lookup_column="id"/>
      </dynamic_source>
      <artist uri="com.tavelorix.content/artists">
        <field name="albums" column="album_ids" type="list" dynamic_source="albums" lookup_column="id"/>
        <field name="missing" column="name" type="list" dynamic_source="nowhere" lookup_column="id"/>
      </artist>
      <now uri="com.tavelorix.content/now"><field name="tags" type="list"/></now>
    </sources>)"));
    setState(Connection::StateConnected);

    // The rows of the nested source still get their own values.
    auto albums = at<DataObjectList>("artists.albums");
    ASSERT_EQ(albums->itemCount(), 2u);
    EXPECT_EQ(std::dynamic_pointer_cast<DataObjectString>(albums->acquireItem(0)->findChild("title"))->getValue(),
              "album 0");
    EXPECT_THAT(log.messages(LogLevel::Error),
                Contains("ContentAdapter: list field 'tracks' of dynamic source 'albums' names dynamic source "
                         "'tracks', which a dynamic source cannot hold; the list stays empty"));

    log.clear();
    EXPECT_NE(at<DataObjectList>("artists.missing")->acquireItem(5), nullptr);
    auto tags = at<DataObjectList>("now.tags");
    ASSERT_NE(tags->getItemTemplate(), nullptr);
    EXPECT_EQ(tags->getItemTemplate()->getName(), "empty");
    EXPECT_THAT(log.messages(LogLevel::Error),
                ::testing::ElementsAre("TethrixDataObjectList: list 'missing' has no source to load row 5 from",
                                       HasSubstr("the source 'now' of list 'tags' has no row template"),
                                       HasSubstr("the source 'now' of list 'tags' has no row template")));
}

}  // namespace
}  // namespace test
}  // namespace zarvo
