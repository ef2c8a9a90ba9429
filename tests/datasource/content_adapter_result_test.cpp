// How query results reach the data objects: single records, refused
// results, dynamic sources and preloaded resources, with exactly the
// notifications a bound UI sees.

#include "data_source_fixture.h"

#include <zarvo/testkit/files.h>
#include <zarvo/testkit/sample_images.h>

#include <cmath>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Matcher;

const char* const nowDeclaration = R"(<sources>
  <now uri="com.tavelorix.content/now">
    <field name="title" type="string"/>
    <field name="position" type="int"/>
    <field name="gain" type="real"/>
    <field name="playing" type="bool"/>
  </now>
</sources>)";
const char* const nowUri = "content://com.tavelorix.content/now";

const Columns nowColumns = {{"title", ContentDataTypeString},
                            {"position", ContentDataTypeInteger},
                            {"gain", ContentDataTypeFloat},
                            {"playing", ContentDataTypeBool}};

class Results : public DataSourceFixture {
protected:
    void answerNow(const Rows& rows, const Columns& columns = nowColumns) { answer(nowUri, columns, rows); }

    template <typename Typed>
    auto value(const std::string& field) {
        return at<Typed>("now." + field)->getValue();
    }
};

TEST_F(Results, SingleRecordFillsItsFieldsByPositionFromItsCurrentRowAndNotifiesEachChangedValue) {
    start(nowDeclaration);
    answerNow({{std::string("Blue Hour"), 42, 0.5f, true}, {std::string("second"), 2, 0.0f, false}});

    EXPECT_EQ(value<DataObjectString>("title"), "Blue Hour");
    EXPECT_EQ(value<DataObjectInteger>("position"), 42);
    EXPECT_EQ(value<DataObjectReal>("gain"), 0.5);
    EXPECT_TRUE(value<DataObjectBoolean>("playing"));
    // The record's own object, the root and the source hear nothing.
    EXPECT_THAT(recorder.take(),
                ElementsAre("Root.now.title", "Root.now.position", "Root.now.gain", "Root.now.playing"));

    answerNow({{std::string("Blue Hour"), 43, 0.5f, true}});
    EXPECT_THAT(recorder.take(), ElementsAre("Root.now.position"));

    // Reals arrive as float and are stored widened.
    answerNow({{std::string("Blue Hour"), 43, 0.1f, true}});
    EXPECT_EQ(value<DataObjectReal>("gain"), static_cast<double>(0.1f));
    // NaN never equals itself: every delivery stores and notifies.
    recorder.clear();
    answerNow({{std::string("Blue Hour"), 43, std::nanf(""), true}});
    answerNow({{std::string("Blue Hour"), 43, std::nanf(""), true}});
    EXPECT_THAT(recorder.take(), ElementsAre("Root.now.gain", "Root.now.gain"));
}

struct BadResult {
    std::string label;
    Columns columns;
    std::vector<boost::any> row;
    std::vector<Matcher<std::string>> log;
    std::vector<std::string> notified;
    std::string title;
    bool playing;
};

TEST_F(Results, ResultsThatDoNotFitAreRefusedOrStopWhereTheyFail) {
    const std::string warning = "warning tethrix: WARNING, Loader::onContentLoaded, result column ";
    Columns renamed = nowColumns;
    renamed[1].name = "pos";
    renamed[3].name = "live";
    Columns surplus = nowColumns;
    surplus.push_back({"extra", ContentDataTypeString});
    Columns unknownType = nowColumns;
    unknownType[1].type = static_cast<ContentDataType>(9);
    Columns otherType = nowColumns;
    otherType[1].type = ContentDataTypeString;  // a string for an integer field
    const std::vector<BadResult> rows = {
        {"fewer columns",
         {{"title", ContentDataTypeString}},
         {std::string("x")},
         {warning + "count doesn't match with update column count"},
         {},
         "",
         false},
        {"a name differs",
         renamed,
         {std::string("x"), 1, 1.0f, true},
         {warning + "1, pos != position", warning + "3, live != playing"},
         {},
         "",
         false},
        // Bounds-checked on purpose; the loop reports what the callback lets out.
        {"surplus columns",
         surplus,
         {std::string("x"), 1, 1.0f, true, std::string("y")},
         {warning + "count doesn't match with update column count",
          HasSubstr("vector::_M_range_check: __n (which is 4) >= this->size() (which is 4)")},
         {},
         "",
         false},
        {"unknown column type skips that column only",
         unknownType,
         {std::string("x"), 5, 1.0f, true},
         {"warning tethrix: ContentAdapter::onContentLoaded, unknown value type 9 for column position"},
         {"Root.now.title", "Root.now.gain", "Root.now.playing"},
         "x",
         true},
        {"column of another type than its field stops there",
         otherType,
         {std::string("x"), std::string("5"), 1.0f, true},
         {HasSubstr("bad_any_cast")},
         {"Root.now.title"},
         "x",
         false},
    };
    for (const BadResult& row : rows) {
        SCOPED_TRACE(row.label);
        start(nowDeclaration);
        answerNow({row.row}, row.columns);
        EXPECT_THAT(log.lines(), ElementsAreArray(row.log));
        EXPECT_EQ(recorder.take(), row.notified);
        EXPECT_EQ(value<DataObjectString>("title"), row.title);
        EXPECT_EQ(value<DataObjectInteger>("position"), 0);
        EXPECT_EQ(value<DataObjectBoolean>("playing"), row.playing);
    }
}

TEST_F(Results, KeyListFillsAListThroughTheDynamicSourceOneQueryPerKey) {
    start(R"(<sources>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums">
    <field name="title" type="string"/>
  </dynamic_source>
  <artist uri="com.tavelorix.content/artists">
    <field name="name" type="string"/>
    <field name="albums" column="album_ids" type="list" dynamic_source="albums" lookup_column="id"/>
    <field name="singles" column="single_ids" type="list" dynamic_source="singles" lookup_column="id"/>
  </artist>
</sources>)");
    service.takeQueries();
    setState(Connection::StateLost);
    setState(Connection::StateConnected);
    const testkit::RecordedQuery artistQuery = service.takeQueries().at(0);

    service.reply(
        artistQuery,
        {{"name", ContentDataTypeString}, {"album_ids", ContentDataTypeString}, {"single_ids", ContentDataTypeString}},
        {{std::string("Anna"), std::string(";12;;15"), std::string("1;2")}}, 0);
    host.runUntilIdle();

    // One single-shot query per non-empty key, each with its own filter.
    const std::vector<testkit::RecordedQuery> detail = service.takeQueries();
    ASSERT_EQ(detail.size(), 2u);
    EXPECT_EQ(detail[0].uri, "content://com.tavelorix.content/albums");
    EXPECT_EQ(detail[0].filter, "id=12");
    EXPECT_EQ(detail[1].filter, "id=15");
    EXPECT_EQ(detail[0].index, 0);
    EXPECT_EQ(detail[0].count, 1);
    // An unknown dynamic source is reported and its list stays empty.
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("DynamicSource not found with name 'singles'"));
    EXPECT_EQ(at<DataObjectList>("artists.singles")->itemCount(), 0u);

    auto albums = at<DataObjectList>("artists.albums");
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

TEST_F(Results, PreloadedFieldShowsThePlaceholderUntilTheResourceIsInThenTheValue) {
    testkit::TemporaryDirectory directory;
    const std::string cover = directory.write("cover.png", testkit::samplePng());
    const char* const declaration = R"(<sources><now uri="com.tavelorix.content/now">
      <field name="cover" type="string" preload_url="placeholder.png"/></now></sources>)";
    start(declaration);
    // The load runs on loader threads and may finish at any time, so the
    // values are taken as each notification happens.
    std::vector<std::string> shown;
    auto token = at("now.cover")->addModifiedSubscription([&](DataContext& context) {
        shown.push_back(static_cast<DataObjectString&>(context).getValue());
    });
    answer(nowUri, {{"cover", ContentDataTypeString}}, {{cover}});

    ASSERT_TRUE(
        host.loop().runUntil([&] { return value<DataObjectString>("cover") == cover; }, std::chrono::seconds(20)));
    at("now.cover")->removeModifiedSubscription(token);
    EXPECT_THAT(shown, ElementsAre("placeholder.png", cover));

    // Once the resource is loaded, a source that gets it shows it at once.
    start(declaration);
    answer(nowUri, {{"cover", ContentDataTypeString}}, {{cover}});
    EXPECT_EQ(value<DataObjectString>("cover"), cover);  // no placeholder, no wait
}

TEST_F(Results, RowPlacesAreAddedInThirtyTwoBitsAndSignExtended) {
    start(R"(<sources><tracks uri="com.tavelorix.content/tracks" type="list" block_size="10">
               <field name="title" type="string"/></tracks></sources>)");
    answer("content://com.tavelorix.content/tracks", {{"title", ContentDataTypeString}},
           {{std::string("last positive")}, {std::string("wrapped")}}, 0x7FFFFFFF);
    auto list = at<TethrixDataObjectList>("tracks");
    const std::size_t wrapped = static_cast<std::size_t>(std::int64_t{-2147483647 - 1});
    EXPECT_EQ(list->itemCount(), wrapped + 1);
    for (const auto& [index, title] :
         {std::make_pair(std::size_t{0x7FFFFFFF}, "last positive"), std::make_pair(wrapped, "wrapped")}) {
        auto row = list->getItem(index);
        ASSERT_EQ(row->getChildCount(), 1u) << index;
        EXPECT_EQ(std::static_pointer_cast<DataObjectString>(row->getChild(0))->getValue(), title);
    }
}

}  // namespace
}  // namespace test
}  // namespace zarvo
