// A data source over a long run: reloads, keys and scrolling free what they
// replace, configurations that cannot work are refused without a crash, and
// a repaired configuration file brings the source back by itself.

#include "data_source_fixture.h"

#include "datasource/tethrix_runtime_data_object_list.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <fstream>

namespace zarvo {
namespace test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

const char* const ARTISTS = "content://com.tavelorix.content/artists";

/// Every kind of ring a tree can hold: a paged list, a list field of a
/// single record, rows with dynamic-source lists, a runtime list and a
/// runtime dynamic-source list.
const char* const EVERY_KIND = R"(<sources>
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
        service.serve(ARTISTS, {{{"name", ContentDataTypeString}, {"album_ids", ContentDataTypeString}},
                                100,
                                [](std::size_t row, std::size_t column) -> boost::any {
                                    return column == 0 ? "artist " + std::to_string(row) : std::string("1;2");
                                }});
        service.serve("content://com.tavelorix.content/albums",
                      {{{"title", ContentDataTypeString}}, 10, [](std::size_t row, std::size_t) -> boost::any {
                           return "album " + std::to_string(row);
                       }});
    }

    void pushRuntime(const std::string& update) {
        service.pushRuntimeUpdate(service.subscriptions().back(), "", update);
        host.runUntilIdle();
    }

    template <typename T>
    std::shared_ptr<T> at(const std::shared_ptr<ZarvoTethrixDataSource>& source, const std::string& path) {
        auto object = std::dynamic_pointer_cast<T>(source->getData()->lookupDataContext(path));
        if (!object) {
            throw std::runtime_error("no " + path);
        }
        return object;
    }
};

TEST_F(LongRun, ReloadFreesTheWholeOldTree) {
    auto source = makeSource(EVERY_KIND);
    load(*source);
    setState(Connection::StateConnected);
    pushRuntime(R"({"values": {"queue": [{"title": "A"}, {"title": "B"}], "recent": "1;2"}})");
    auto artists = at<DataObjectList>(source, "artists");
    for (std::size_t row = 0; row < 30; ++row) {
        artists->acquireItem(row);
        host.runUntilIdle();
    }
    at<DataObjectList>(source, "queue")->acquireItem(1);
    at<DataObjectList>(source, "now.tags")->getItemTemplate();
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
    auto source = makeSource(EVERY_KIND);
    load(*source);
    setState(Connection::StateConnected);
    auto recent = at<DataObjectList>(source, "recent");
    auto queue = at<DataObjectList>(source, "queue");
    pushRuntime(R"({"values": {"queue": [{"title": "A"}]}})");

    for (int change = 0; change < 500; ++change) {
        pushRuntime(std::string(R"({"values": {"recent": ")") + (change % 2 ? "1;2" : "2;1") + "\"}}");
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

TEST_F(LongRun, AReadAheadLostWithTheConnectionIsAskedAgain) {
    auto source = makeSource(R"(<sources><songs uri="com.tavelorix.content/songs" type="list" block_size="10">
      <field name="title" type="string"/></songs></sources>)");
    load(*source);
    setState(Connection::StateConnected);
    const auto answerFirstRow = [&] {
        service.reply(service.takeQueries().at(0), {{"title", ContentDataTypeString}}, {{std::string("a")}}, 0);
        host.runUntilIdle();
    };
    answerFirstRow();
    auto songs = at<DataObjectList>(source, "songs");
    songs->acquireItem(0);  // a hit: block 0 is read ahead
    ASSERT_EQ(service.takeQueries().at(0).count, 10);

    setState(Connection::StateLost);  // the read-ahead goes with the loader
    songs->acquireItem(0);            // and a read-ahead while no loader is there
    setState(Connection::StateConnected);
    answerFirstRow();

    const std::vector<testkit::RecordedQuery> queries = service.takeQueries();
    ASSERT_EQ(queries.size(), 1u);
    EXPECT_EQ(queries[0].index, 0);
    EXPECT_EQ(queries[0].count, 10);
}

TEST_F(LongRun, ConfigurationsThatCannotWorkAreRefusedWithoutACrash) {
    auto source = makeSource(R"(<sources>
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
    </sources>)");
    load(*source);
    setState(Connection::StateConnected);

    // The rows of the nested source still get their own values.
    auto albums = at<DataObjectList>(source, "artists.albums");
    ASSERT_EQ(albums->itemCount(), 2u);
    EXPECT_EQ(std::dynamic_pointer_cast<DataObjectString>(albums->acquireItem(0)->findChild("title"))->getValue(),
              "album 0");
    EXPECT_THAT(log.messages(LogLevel::Error),
                Contains("ContentAdapter: list field 'tracks' of dynamic source 'albums' names dynamic source "
                         "'tracks', which a dynamic source cannot hold; the list stays empty"));

    log.clear();
    auto missing = at<DataObjectList>(source, "artists.missing");
    EXPECT_NE(missing->acquireItem(5), nullptr);
    auto tags = at<DataObjectList>(source, "now.tags");
    ASSERT_NE(tags->getItemTemplate(), nullptr);
    EXPECT_EQ(tags->getItemTemplate()->getName(), "empty");
    EXPECT_THAT(log.messages(LogLevel::Error),
                ::testing::ElementsAre("TethrixDataObjectList: list 'missing' has no source to load row 5 from",
                                       HasSubstr("the source 'now' of list 'tags' has no row template"),
                                       HasSubstr("the source 'now' of list 'tags' has no row template")));
}

TEST_F(LongRun, ARepairedFileReloadsTheSourceAfterABadNumber) {
    char pattern[] = "/tmp/zarvo-long-run-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string path = std::string(pattern) + "/sources.xml";
    time_t modified = 1000000000;
    const auto write = [&](const std::string& blockSize) {
        std::ofstream(path) << R"(<sources><artists uri="com.tavelorix.content/artists" type="list" block_size=")" << blockSize
                            << R"("><field name="name" type="string"/></artists></sources>)";
        modified += 10;
        utimbuf times{modified, modified};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
    };
    write("10");
    auto source = makeSource(std::string(), path);
    load(*source);
    setState(Connection::StateConnected);

    write("ten");
    host.advance(std::chrono::milliseconds(1000));
    EXPECT_EQ(source->getData(), nullptr);
    EXPECT_THAT(log.messages(LogLevel::Error), Contains(HasSubstr("it is watched for a repair")));

    write("20");
    host.advance(std::chrono::milliseconds(1000));
    ASSERT_NE(source->getData(), nullptr);
    EXPECT_EQ(at<DataObjectList>(source, "artists")->itemCount(), 1u);
    EXPECT_TRUE(source->isConnected());

    std::remove(path.c_str());
    rmdir(pattern);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
