// How query results reach the data objects: single records, refused
// results, dynamic sources and preloaded resources, with exactly the
// notifications a bound UI sees.

#include "data_source_fixture.h"

#include <zarvo/testkit/files.h>
#include <zarvo/testkit/sample_images.h>
#include <zarvo/testkit/image_server.h>

#include "datasource/http_protocol_handler_actions.h"

#include <zarvo/resource_manager.h>

#include <gmock/gmock.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace zarvo {
namespace test {

using namespace zarvo::testkit;
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Columns = std::vector<ContentResult::Column>;
using Rows = std::vector<std::vector<boost::any>>;

const char* const NOW = R"(<sources>
  <now uri="com.tavelorix.content/now">
    <field name="title" type="string"/>
    <field name="position" type="int"/>
    <field name="gain" type="real"/>
    <field name="playing" type="bool"/>
  </now>
</sources>)";

const Columns NOW_COLUMNS = {{"title", ContentDataTypeString},
                             {"position", ContentDataTypeInteger},
                             {"gain", ContentDataTypeFloat},
                             {"playing", ContentDataTypeBool}};

class Results : public DataSourceFixture {
protected:
    void start(const std::string& declaration) {
        service.takeQueries();
        source = makeSource(declaration);
        load(*source);
        setState(Connection::StateConnected);
        recorder.watchTree(source->getData());
        recorder.clear();
        log.clear();
    }

    /// Answers the latest query sent to `uri` and runs the loop.
    void answer(const std::string& uri, const Columns& columns, const Rows& rows, std::size_t startIndex = 0) {
        const std::vector<testkit::RecordedQuery>& queries = service.queries();
        for (auto query = queries.rbegin(); query != queries.rend(); ++query) {
            if (query->uri == uri) {
                service.reply(*query, columns, rows, startIndex);
                host.runUntilIdle();
                return;
            }
        }
        FAIL() << "no query for " << uri;
    }

    void answerNow(const Rows& rows) { answer("content://com.tavelorix.content/now", NOW_COLUMNS, rows); }

    std::shared_ptr<DataObject> now(const std::string& field) { return source->getData()->findChild("now")->findChild(field); }

    template <typename Typed>
    auto value(const std::string& field) {
        return std::dynamic_pointer_cast<Typed>(now(field))->getValue();
    }

    std::shared_ptr<ZarvoTethrixDataSource> source;
    testkit::NotificationRecorder recorder;
};

TEST_F(Results, SingleRecordFillsItsFieldsByPositionAndNotifiesEachChangedValue) {
    start(NOW);
    answerNow({{std::string("Blue Hour"), 42, 0.5f, true}});

    EXPECT_EQ(value<DataObjectString>("title"), "Blue Hour");
    EXPECT_EQ(value<DataObjectInteger>("position"), 42);
    EXPECT_EQ(value<DataObjectReal>("gain"), 0.5);
    EXPECT_TRUE(value<DataObjectBoolean>("playing"));
    // The record's own object, the root and the source hear nothing.
    EXPECT_THAT(recorder.events(), ElementsAre("Root.now.title", "Root.now.position", "Root.now.gain", "Root.now.playing"));
}

TEST_F(Results, UnchangedValuesSendNoNotice) {
    start(NOW);
    answerNow({{std::string("Blue Hour"), 42, 0.5f, true}});
    recorder.clear();

    service.reply(service.queries().front(), NOW_COLUMNS, {{std::string("Blue Hour"), 43, 0.5f, true}}, 0);
    host.runUntilIdle();

    EXPECT_THAT(recorder.events(), ElementsAre("Root.now.position"));
}

TEST_F(Results, OnlyTheRowTheResultStandsOnIsApplied) {
    start(NOW);
    answerNow({{std::string("first"), 1, 0.0f, false}, {std::string("second"), 2, 0.0f, false}});
    EXPECT_EQ(value<DataObjectString>("title"), "first");
}

TEST_F(Results, RealsArriveAsFloatAndAreStoredWidened) {
    start(NOW);
    answerNow({{std::string(), 0, 0.1f, false}});
    EXPECT_EQ(value<DataObjectReal>("gain"), static_cast<double>(0.1f));

    // NaN never equals itself: every delivery stores and notifies.
    recorder.clear();
    service.reply(service.queries().front(), NOW_COLUMNS, {{std::string(), 0, std::nanf(""), false}}, 0);
    service.reply(service.queries().front(), NOW_COLUMNS, {{std::string(), 0, std::nanf(""), false}}, 0);
    host.runUntilIdle();
    EXPECT_THAT(recorder.events(), ElementsAre("Root.now.gain", "Root.now.gain"));
}

struct RefusedRow {
    std::string label;
    Columns columns;
    Rows rows;
    std::vector<std::string> warnings;
};

TEST_F(Results, ResultsThatDoNotMatchTheColumnsAreRefusedWithTheirWarnings) {
    const std::vector<RefusedRow> rows = {
        {"fewer columns",
         {{"title", ContentDataTypeString}},
         {{std::string("x")}},
         {"WARNING, Loader::onContentLoaded, result column count doesn't match with update column count"}},
        {"a name differs",
         {{"title", ContentDataTypeString},
          {"pos", ContentDataTypeInteger},
          {"gain", ContentDataTypeFloat},
          {"live", ContentDataTypeBool}},
         {{std::string("x"), 1, 1.0f, true}},
         {"WARNING, Loader::onContentLoaded, result column 1, pos != position",
          "WARNING, Loader::onContentLoaded, result column 3, live != playing"}},
    };
    for (const RefusedRow& row : rows) {
        SCOPED_TRACE(row.label);
        start(NOW);
        answer("content://com.tavelorix.content/now", row.columns, row.rows);
        EXPECT_EQ(log.messages(LogLevel::Warning), row.warnings);
        EXPECT_THAT(recorder.events(), IsEmpty());
        EXPECT_EQ(value<DataObjectString>("title"), "");
        TearDown();
    }
}

TEST_F(Results, SurplusColumnsLeaveTheCallbackAsOutOfRange) {
    start(R"(<s><now uri="com.tavelorix.content/now"><field name="title" type="string"/></now></s>)");
    const testkit::RecordedQuery query = service.queries().front();
    service.reply(query, {{"title", ContentDataTypeString}, {"extra", ContentDataTypeString}},
                  {{std::string("x"), std::string("y")}}, 0);
    // The loop catches what a callback lets out and reports it.
    host.runUntilIdle();
    const std::vector<std::string> errors = log.messages(LogLevel::Error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("vector::_M_range_check: __n (which is 1) >= this->size() (which is 1)"),
              std::string::npos);
    EXPECT_EQ(value<DataObjectString>("title"), "");
}

TEST_F(Results, UnknownColumnTypeSkipsThatColumnOnly) {
    start(NOW);
    Columns columns = NOW_COLUMNS;
    columns[1].type = static_cast<ContentDataType>(9);
    service.reply(service.queries().front(), columns, {{std::string("x"), 5, 1.0f, true}}, 0);
    host.runUntilIdle();

    EXPECT_THAT(log.messages(LogLevel::Warning),
                ElementsAre("ContentAdapter::onContentLoaded, unknown value type 9 for column position"));
    EXPECT_EQ(value<DataObjectString>("title"), "x");
    EXPECT_EQ(value<DataObjectInteger>("position"), 0);
    EXPECT_TRUE(value<DataObjectBoolean>("playing"));
}

TEST_F(Results, ColumnOfAnotherTypeThanItsFieldStopsAtThatColumn) {
    start(NOW);
    Columns columns = NOW_COLUMNS;
    columns[1].type = ContentDataTypeString;  // a string for an integer field
    service.reply(service.queries().front(), columns, {{std::string("x"), std::string("5"), 1.0f, true}}, 0);
    host.runUntilIdle();

    EXPECT_EQ(value<DataObjectString>("title"), "x");  // written before the failure
    EXPECT_FALSE(value<DataObjectBoolean>("playing"));
    ASSERT_EQ(log.messages(LogLevel::Error).size(), 1u);
    EXPECT_NE(log.messages(LogLevel::Error)[0].find("bad_any_cast"), std::string::npos);
}

const char* const MASTER_DETAIL = R"(<sources>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums">
    <field name="title" type="string"/>
  </dynamic_source>
  <artist uri="com.tavelorix.content/artists">
    <field name="name" type="string"/>
    <field name="albums" column="album_ids" type="list" dynamic_source="albums" lookup_column="id"/>
  </artist>
</sources>)";

TEST_F(Results, KeyListFillsAListThroughTheDynamicSourceOneQueryPerKey) {
    start(MASTER_DETAIL);
    service.takeQueries();
    const testkit::RecordedQuery artistQuery = [&] {
        setState(Connection::StateLost);
        setState(Connection::StateConnected);
        return service.queries().front();
    }();
    recorder.clear();
    service.takeQueries();

    service.reply(artistQuery, {{"name", ContentDataTypeString}, {"album_ids", ContentDataTypeString}},
                  {{std::string("Anna"), std::string(";12;;15")}}, 0);
    host.runUntilIdle();

    // One single-shot query per non-empty key, each with its own filter.
    const std::vector<testkit::RecordedQuery> detail = service.takeQueries();
    ASSERT_EQ(detail.size(), 2u);
    EXPECT_EQ(detail[0].uri, "content://com.tavelorix.content/albums");
    EXPECT_EQ(detail[0].filter, "id=12");
    EXPECT_EQ(detail[1].filter, "id=15");
    EXPECT_EQ(detail[0].index, 0);
    EXPECT_EQ(detail[0].count, 1);

    auto albums = std::dynamic_pointer_cast<DataObjectList>(source->getData()->findChild("artists")->findChild("albums"));
    ASSERT_NE(albums, nullptr);
    EXPECT_EQ(albums->itemCount(), 4u);  // the count follows the highest key position

    service.reply(detail[1], {{"title", ContentDataTypeString}}, {{std::string("Red Sky")}}, 0);
    service.reply(detail[0], {{"title", ContentDataTypeString}}, {{std::string("Cold Light")}}, 0);
    host.runUntilIdle();
    auto title = [&](std::size_t row) {
        auto item = albums->acquireItem(row);
        std::string text = std::dynamic_pointer_cast<DataObjectString>(item->findChild("title"))->getValue();
        albums->releaseItem(row);
        return text;
    };
    EXPECT_EQ(title(1), "Cold Light");
    EXPECT_EQ(title(3), "Red Sky");

    // The dynamic source's shared configuration now reads as the last key left it.
    auto config = source->findDynamicSource("albums")->getConfig();
    EXPECT_EQ(config->name, "item");
    EXPECT_EQ(config->filter, "id=15");
    EXPECT_TRUE(config->singleShot);
    // Each child answered once and stopped its loader: a second answer is dropped.
    service.reply(detail[0], {{"title", ContentDataTypeString}}, {{std::string("Changed")}}, 0);
    host.runUntilIdle();
    EXPECT_EQ(title(1), "Cold Light");
}

TEST_F(Results, UnknownDynamicSourceIsReportedAndTheListStaysEmpty) {
    start(R"(<sources>
      <artist uri="com.tavelorix.content/artists">
        <field name="albums" column="album_ids" type="list" dynamic_source="singles" lookup_column="id"/>
      </artist></sources>)");
    answer("content://com.tavelorix.content/artists", {{"album_ids", ContentDataTypeString}}, {{std::string("1;2")}});
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("DynamicSource not found with name 'singles'"));
    auto albums = std::dynamic_pointer_cast<DataObjectList>(source->getData()->findChild("artists")->findChild("albums"));
    EXPECT_EQ(albums->itemCount(), 0u);
}

class Preload : public Results {
protected:
    TemporaryDirectory directory;
    const std::string cover = directory.write("cover.png", samplePng());
};

TEST_F(Preload, FieldShowsThePlaceholderUntilTheResourceIsInThenTheValue) {
    start(R"(<sources><now uri="com.tavelorix.content/now">
      <field name="cover" type="string" preload_url="placeholder.png"/></now></sources>)");
    // The load runs on loader threads and may finish at any time, so the
    // values are taken as each notification happens.
    std::vector<std::string> shown;
    auto token = now("cover")->addModifiedSubscription(
        [&](DataContext& context) { shown.push_back(static_cast<DataObjectString&>(context).getValue()); });
    answer("content://com.tavelorix.content/now", {{"cover", ContentDataTypeString}}, {{cover}});

    ASSERT_TRUE(host.loop().runUntil([&] { return value<DataObjectString>("cover") == cover; },
                                     std::chrono::seconds(20)));
    now("cover")->removeModifiedSubscription(token);
    EXPECT_THAT(shown, ElementsAre("placeholder.png", cover));

    // Once the resource is loaded, a source that gets it shows it at once.
    start(R"(<sources><now uri="com.tavelorix.content/now">
      <field name="cover" type="string" preload_url="placeholder.png"/></now></sources>)");
    answer("content://com.tavelorix.content/now", {{"cover", ContentDataTypeString}}, {{cover}});
    EXPECT_EQ(value<DataObjectString>("cover"), cover);  // no placeholder, no wait
}

TEST_F(Results, RowPlacesAreAddedInThirtyTwoBitsAndSignExtended) {
    start(R"(<sources><tracks uri="com.tavelorix.content/tracks" type="list" block_size="10">
               <field name="title" type="string"/></tracks></sources>)");
    answer("content://com.tavelorix.content/tracks", {{"title", ContentDataTypeString}},
           {{std::string("last positive")}, {std::string("wrapped")}}, 0x7FFFFFFF);
    auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(source->getData()->findChild("tracks"));
    const std::size_t wrapped = static_cast<std::size_t>(std::int64_t{-2147483647 - 1});
    EXPECT_EQ(list->itemCount(), wrapped + 1);
    for (const auto& [index, title] : {std::make_pair(std::size_t{0x7FFFFFFF}, "last positive"),
                                      std::make_pair(wrapped, "wrapped")}) {
        auto row = list->getItem(index);
        ASSERT_EQ(row->getChildCount(), 1u) << index;
        EXPECT_EQ(std::static_pointer_cast<DataObjectString>(row->getChild(0))->getValue(), title);
    }
}

}  // namespace
}  // namespace test
}  // namespace zarvo
