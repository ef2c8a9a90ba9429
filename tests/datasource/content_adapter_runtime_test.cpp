// A runtime source end to end: the tree the adapter makes from the runtime
// data, updates from the scripted service reaching the data objects, and
// string values that expand into lists through a dynamic source.
#include "runtime_source_fixture.h"

#include "datasource/tethrix_data_object_list.h"
#include "datasource/tethrix_runtime_data_object_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> childNames(const DataObject& object) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < object.getChildCount(); ++i) {
        names.push_back(object.getChild(i)->getName());
    }
    return names;
}

const char* const playerXml = R"(
<player service="player">
  <integer name="volume" value="3"/>
  <real name="gain" value="0.5"/>
  <boolean name="muted" value="true"/>
  <string name="title" value="Blue Hour"/>
  <string name="cover" value="a.png" lookup_column="id"/>
  <object name="player">
    <integer name="position" value="7"/>
    <object name="track"><string name="artist" value="Anna"/></object>
  </object>
  <list name="queue"/>
</player>)";

class ContentAdapterRuntimeTest : public test::RuntimeSourceFixture {};

TEST_F(ContentAdapterRuntimeTest, MirrorsTheTreeDirectlyUnderTheParent) {
    start({runtimeSource(playerXml)});

    // No object for the source itself: its name plays no part.
    EXPECT_THAT(childNames(*root), ElementsAre("volume", "gain", "muted", "title", "cover", "player", "queue"));
    ASSERT_NE(at<DataObjectInteger>("volume"), nullptr);
    EXPECT_EQ(at<DataObjectInteger>("volume")->getValue(), 3);
    ASSERT_NE(at<DataObjectReal>("gain"), nullptr);
    EXPECT_EQ(at<DataObjectReal>("gain")->getValue(), 0.5);
    ASSERT_NE(at<DataObjectBoolean>("muted"), nullptr);
    EXPECT_TRUE(at<DataObjectBoolean>("muted")->getValue());
    ASSERT_NE(at<DataObjectString>("title"), nullptr);
    EXPECT_EQ(at<DataObjectString>("title")->getValue(), "Blue Hour");
    // One of the two properties of a dynamic list is not enough.
    ASSERT_NE(at<DataObjectString>("cover"), nullptr);
    EXPECT_EQ(at("player")->getType(), DataObject::TypeObject);
    EXPECT_THAT(childNames(*at("player")), ElementsAre("position", "track"));
    EXPECT_EQ(at<DataObjectString>("player.track.artist")->getValue(), "Anna");
    EXPECT_NE(at<TethrixRuntimeDataObjectList>("queue"), nullptr);

    EXPECT_EQ(manager.getAdapters().front()->getDataObject(), nullptr);
    const auto runtime = configs[0]->runtimeData;
    EXPECT_EQ(runtime->boundDataObject, nullptr);
    EXPECT_EQ(runtime->findChild("player")->boundDataObject, at("player"));
    EXPECT_EQ(runtime->findChild("player")->findChild("track")->findChild("artist")->boundDataObject,
              at("player.track.artist"));
}

TEST_F(ContentAdapterRuntimeTest, SubscribesInsteadOfQuerying) {
    start({runtimeSource(playerXml)});

    ASSERT_EQ(service.subscriptions().size(), 1u);
    EXPECT_EQ(service.subscriptions()[0].uri, "servicedata://player");
    EXPECT_THAT(service.queries(), IsEmpty());
}

TEST_F(ContentAdapterRuntimeTest, AnEmptyTreeMakesNothingButStillSubscribes) {
    auto config = runtimeSource("<player service='player'/>");
    start({config});

    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_EQ(service.subscriptions().size(), 1u);
    push(R"({"values":{}})");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ContentAdapterRuntimeTest, UpdatesNotifyOnlyTheDataObjectsThatChange) {
    start({runtimeSource(playerXml)});
    recorder.watchTree(root);

    push(R"({"values":{"volume":4,"gain":0.5,"title":"Cold Light","player":{"position":7,"track":{"artist":"Ben"}}}})");
    EXPECT_THAT(recorder.take(), ElementsAre("Root.volume", "Root.title", "Root.player.track.artist"));
    EXPECT_EQ(at<DataObjectInteger>("volume")->getValue(), 4);
    EXPECT_EQ(at<DataObjectString>("title")->getValue(), "Cold Light");
    EXPECT_EQ(at<DataObjectString>("player.track.artist")->getValue(), "Ben");

    push(R"({"values":{"volume":4,"title":"Cold Light","muted":true}})");
    EXPECT_THAT(recorder.take(), IsEmpty());

    push(R"({"values":{"muted":false,"cover":"b.png"}})");
    EXPECT_THAT(recorder.take(), ElementsAre("Root.muted", "Root.cover"));
    EXPECT_EQ(at<DataObjectString>("cover")->getValue(), "b.png");
}

// A node of a type the data tree has no object for: the enumeration.
class EnumerationNode : public RuntimeDataObject {
public:
    explicit EnumerationNode(const std::string& name) : RuntimeDataObject(nullptr, name, "1") {}
    Type getType() const override { return static_cast<Type>(5); }
};

TEST_F(ContentAdapterRuntimeTest, AnUnknownTypeIsLeftOutAndItsSiblingsStay) {
    auto config = runtimeSource("<r><object name='player'><integer name='a'/><integer name='b'/></object></r>");
    auto player = config->runtimeData->findChild("player");
    auto enumeration = std::make_shared<EnumerationNode>("mode");
    auto inner = std::make_shared<RuntimeDataObject>(nullptr, "inner", "");
    inner->addChild(std::make_shared<RuntimeDataObjectInteger>(nullptr, "x"));
    enumeration->addChild(inner);
    // Rebuild the object with the enumeration between its two children.
    auto rebuilt = std::make_shared<RuntimeDataObject>(nullptr, "player", "");
    rebuilt->addChild(player->findChild("a"));
    rebuilt->addChild(enumeration);
    rebuilt->addChild(player->findChild("b"));
    config->runtimeData = std::make_shared<RuntimeDataObject>(nullptr, "", "");
    config->runtimeData->addChild(rebuilt);

    start({config});

    EXPECT_THAT(childNames(*at("player")), ElementsAre("a", "b"));
    EXPECT_EQ(enumeration->boundDataObject, nullptr);
    EXPECT_EQ(inner->boundDataObject, nullptr);
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("Unknown type 5"));
}

// ---------------------------------------------------------------------------
// Dynamic expansion of a string value

const char* const artistXml = R"(
<player service="player">
  <string name="artistAlbums" dynamic_source="albums" lookup_column="artist_id"/>
</player>)";

class RuntimeDynamicExpansionTest : public test::RuntimeSourceFixture {
protected:
    void startWithAlbums(const std::string& xml = artistXml) {
        albums = dynamicSource("albums", "albums", {"title"});
        start({albums, runtimeSource(xml)});
        list = at<TethrixDataObjectList>("artistAlbums");
    }

    std::vector<std::string> filters() {
        std::vector<std::string> result;
        for (const auto& query : service.takeQueries()) {
            EXPECT_EQ(query.uri, "content://com.tavelorix.content/albums");
            EXPECT_THAT(query.columns, ElementsAre("title"));
            result.push_back(query.filter);
        }
        return result;
    }

    std::string titleOf(std::size_t index) {
        auto title = std::dynamic_pointer_cast<DataObjectString>(list->getItem(index)->findChild("title"));
        return title ? title->getValue() : "(none)";
    }

    std::shared_ptr<ContentAdapterConfiguration> albums;
    std::shared_ptr<TethrixDataObjectList> list;
};

TEST_F(RuntimeDynamicExpansionTest, AStringWithBothPropertiesIsAnUnpagedList) {
    startWithAlbums();

    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->itemCount(), 0u);
    EXPECT_THAT(service.queries(), IsEmpty());
}

TEST_F(RuntimeDynamicExpansionTest, EachKeyStartsAOneShotQueryOnItsRow) {
    startWithAlbums();
    recorder.watch(*list, "list");

    push(R"({"values":{"artistAlbums":"7;;9"}})");

    const auto queries = service.queries();
    EXPECT_THAT(filters(), ElementsAre("artist_id=7", "artist_id=9"));
    EXPECT_EQ(albums->name, "item");
    EXPECT_EQ(albums->type, ContentAdapterConfiguration::Single);
    EXPECT_TRUE(albums->singleShot);
    // The empty key keeps its row number free.
    EXPECT_EQ(list->itemCount(), 3u);
    EXPECT_FALSE(recorder.events().empty());

    const ContentResult::Column title{"title", ContentDataTypeString};
    service.reply(queries[0], {title}, {{std::string("Blue")}}, 0);
    service.reply(queries[1], {title}, {{std::string("Red")}}, 0);
    host.runUntilIdle();
    EXPECT_EQ(titleOf(0), "Blue");
    EXPECT_EQ(titleOf(2), "Red");
    EXPECT_THAT(log.messages(LogLevel::Error), IsEmpty());
}

TEST_F(RuntimeDynamicExpansionTest, AShorterListOfKeysLeavesTheRowsBehindIt) {
    startWithAlbums();
    push(R"({"values":{"artistAlbums":"7;8;9"}})");
    auto queries = service.takeQueries();
    const ContentResult::Column title{"title", ContentDataTypeString};
    for (std::size_t i = 0; i < queries.size(); ++i) {
        service.reply(queries[i], {title}, {{std::string("album") + std::to_string(i)}}, 0);
    }
    host.runUntilIdle();

    push(R"({"values":{"artistAlbums":"5"}})");

    queries = service.takeQueries();
    ASSERT_EQ(queries.size(), 1u);
    EXPECT_EQ(queries[0].filter, "artist_id=5");
    service.reply(queries[0], {title}, {{std::string("five")}}, 0);
    host.runUntilIdle();
    EXPECT_EQ(list->itemCount(), 3u);
    EXPECT_EQ(titleOf(0), "five");
    EXPECT_EQ(titleOf(1), "album1");
    EXPECT_EQ(titleOf(2), "album2");
}

TEST_F(RuntimeDynamicExpansionTest, AnUnknownDynamicSourceIsReportedAtEachChange) {
    startWithAlbums(R"(<r><string name="artistAlbums" dynamic_source="singles" lookup_column="artist_id"/></r>)");

    push(R"({"values":{"artistAlbums":"7"}})");

    EXPECT_THAT(service.queries(), IsEmpty());
    EXPECT_EQ(list->itemCount(), 0u);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].category, "tethrix");
    EXPECT_EQ(entries[0].message, "DynamicSource not found with name 'singles' (runtime)");
}

}  // namespace
}  // namespace zarvo
