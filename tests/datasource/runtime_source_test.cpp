// A runtime source through the real reader, adapters and client library with
// a scripted service: the tree it makes, updates reaching the data objects,
// the list that mirrors a runtime list, and string values that expand into
// lists through a dynamic source.
#include "data_source_fixture.h"

#include "datasource/tethrix_runtime_data_object_list.h"

#include <zarvo/runtime_data.h>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

using RuntimeSource = DataSourceFixture;

TEST_F(RuntimeSource, MirrorsTheTreeUnderTheRootAndSubscribesInsteadOfQuerying) {
    start(playerXml);

    // No object for the source itself: its name plays no part.
    EXPECT_THAT(childNames(*source->getData()),
                ElementsAre("connected", "volume", "gain", "muted", "title", "cover", "player", "queue"));
    EXPECT_EQ(at<DataObjectInteger>("volume")->getValue(), 3);
    EXPECT_EQ(at<DataObjectReal>("gain")->getValue(), 0.5);
    EXPECT_TRUE(at<DataObjectBoolean>("muted")->getValue());
    EXPECT_EQ(at<DataObjectString>("title")->getValue(), "Blue Hour");
    // One of the two properties of a dynamic list is not enough.
    EXPECT_EQ(at<DataObjectString>("cover")->getValue(), "a.png");
    EXPECT_THAT(childNames(*at("player")), ElementsAre("position", "track"));
    EXPECT_EQ(at<DataObjectString>("player.track.artist")->getValue(), "Anna");
    at<TethrixRuntimeDataObjectList>("queue");

    const auto adapter = source->getAdapters().front();
    EXPECT_EQ(adapter->getDataObject(), nullptr);
    const auto runtime = adapter->getConfig()->runtimeData;
    EXPECT_EQ(runtime->boundDataObject, nullptr);
    EXPECT_EQ(runtime->findChild("player")->findChild("track")->findChild("artist")->boundDataObject,
              at("player.track.artist"));
    ASSERT_EQ(service.subscriptions().size(), 1u);
    EXPECT_EQ(service.subscriptions()[0].uri, "servicedata://player");
    EXPECT_THAT(service.queries(), IsEmpty());

    // An empty tree makes nothing but still subscribes.
    start("<player service='player'/>");
    EXPECT_THAT(childNames(*source->getData()), ElementsAre("connected"));
    EXPECT_EQ(service.subscriptions().size(), 2u);
    push(R"({"values":{}})");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RuntimeSource, UpdatesNotifyOnlyTheDataObjectsThatChange) {
    start(playerXml);

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

TEST_F(RuntimeSource, AnUnknownTypeIsLeftOutAndItsSiblingsStay) {
    auto enumeration = std::make_shared<EnumerationNode>("mode");
    auto inner = std::make_shared<RuntimeDataObject>(nullptr, "inner", "");
    inner->addChild(std::make_shared<RuntimeDataObjectInteger>(nullptr, "x"));
    enumeration->addChild(inner);
    auto player = std::make_shared<RuntimeDataObject>(nullptr, "player", "");
    player->addChild(std::make_shared<RuntimeDataObjectInteger>(nullptr, "a"));
    player->addChild(enumeration);
    player->addChild(std::make_shared<RuntimeDataObjectInteger>(nullptr, "b"));
    auto config = std::make_shared<ContentAdapterConfiguration>();
    config->uri = "servicedata://player";
    config->runtimeData = std::make_shared<RuntimeDataObject>(nullptr, "", "");
    config->runtimeData->addChild(player);
    ContentAdapterManager manager(service.context());
    manager.addAdapter(manager.createAdapter(config, &host.domain()));
    auto root = std::make_shared<DataObject>(&host.domain(), "Root");

    manager.initializeAllAdapters(root);

    EXPECT_THAT(childNames(*root->findChild("player")), ElementsAre("a", "b"));
    EXPECT_EQ(enumeration->boundDataObject, nullptr);
    EXPECT_EQ(inner->boundDataObject, nullptr);
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("Unknown type 5"));
    manager.destroyAllAdapters();
}

// ---------------------------------------------------------------------------
// The list that mirrors a runtime list, as a list view drives it.

const char* const queueXml = R"(
<player service="player">
  <list name="queue">
    <template name="track">
      <string name="title"/><real name="duration"/>
      <string name="albums" dynamic_source="albums" lookup_column="id"/>
      <object name="extra"><integer name="plays"/></object>
    </template>
    <row><string name="title" value="A"/><real name="duration" value="1"/></row>
    <row><string name="title" value="B"/><real name="duration" value="2"/>
      <object name="extra"><integer name="plays" value="4"/></object></row>
  </list>
  <list name="plain"/>
</player>)";

class RuntimeList : public DataSourceFixture {
protected:
    void SetUp() override {
        start(queueXml);
        list = at<TethrixRuntimeDataObjectList>("queue");
        runtimeList = source->getAdapters()
                          .front()
                          ->getConfig()
                          ->runtimeData->findChild("queue")
                          ->castTo<RuntimeDataObjectList>();
    }

    static std::string titleOf(const std::shared_ptr<DataObject>& row) {
        auto title = std::dynamic_pointer_cast<DataObjectString>(row->findChild("title"));
        return title ? title->getValue() : "(none)";
    }

    std::shared_ptr<TethrixRuntimeDataObjectList> list;
    std::shared_ptr<RuntimeDataObjectList> runtimeList;
};

TEST_F(RuntimeList, ARowIsBuiltOnceUntilItIsReleased) {
    ASSERT_EQ(list->itemCount(), 2u);
    EXPECT_EQ(list->getChildCount(), 0u);

    const auto first = list->acquireItem(1);
    EXPECT_EQ(list->acquireItem(1), first);
    EXPECT_EQ(first->getName(), "track");
    EXPECT_EQ(titleOf(first), "B");
    EXPECT_EQ(std::static_pointer_cast<DataObjectReal>(first->findChild("duration"))->getValue(), 2.0);
    EXPECT_EQ(std::static_pointer_cast<DataObjectInteger>(first->lookupDataContext("extra.plays"))->getValue(), 4);
    EXPECT_EQ(runtimeList->getItem(1)->boundDataObject, first);

    list->releaseItem(1);
    EXPECT_EQ(runtimeList->getItem(1)->boundDataObject, nullptr);
    const auto second = list->acquireItem(1);
    EXPECT_NE(second, first);
    EXPECT_EQ(titleOf(second), "B");

    // Released rows stay children of the list: each cycle adds one.
    ASSERT_EQ(list->getChildCount(), 2u);
    EXPECT_EQ(list->getChild(0), first);
    EXPECT_EQ(list->getChild(1), second);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RuntimeList, AnIndexOutsideTheRowsGivesTheEmptyObject) {
    const auto item = list->acquireItem(2);

    EXPECT_EQ(item->getName(), "empty");
    EXPECT_EQ(item->getChildCount(), 0u);
    EXPECT_EQ(list->acquireItem(5), item);
    EXPECT_THAT(log.lines(), ElementsAre("error tethrix: Invalid index in acquireItem. index=2 amount=2",
                                         "error tethrix: Invalid index in acquireItem. index=5 amount=2"));
    log.clear();
    list->releaseItem(2);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(list->acquireItem(1)->getName(), "track");
}

TEST_F(RuntimeList, TheTemplateIsMadeOnceAndIsNoRow) {
    const auto itemTemplate = list->getItemTemplate();

    EXPECT_EQ(list->getItemTemplate(), itemTemplate);
    EXPECT_EQ(itemTemplate->getName(), "track");
    EXPECT_EQ(titleOf(itemTemplate), "");
    EXPECT_EQ(list->getChildCount(), 0u);
    // A dynamic list inside a row stays a list, unpaged.
    auto albums = std::dynamic_pointer_cast<TethrixDataObjectList>(itemTemplate->findChild("albums"));
    ASSERT_NE(albums, nullptr);
    EXPECT_EQ(albums->itemCount(), 0u);
    EXPECT_EQ(at<TethrixRuntimeDataObjectList>("plain")->getItemTemplate()->getName(), "empty");
}

TEST_F(RuntimeList, RowChangesNotifyTheListOncePerUpdateAndEqualRowsStayBound) {
    const auto bound = list->acquireItem(0);
    push(R"({"rows":[{"list":"queue","replace":0,"row":{"title":"A","duration":1}}]})");
    EXPECT_THAT(recorder.take(), IsEmpty());
    EXPECT_EQ(list->acquireItem(0), bound);

    push(R"({"rows":[{"list":"queue","insert":2,"row":{"title":"C"}},)"
         R"({"list":"queue","replace":0,"row":{"title":"A2","duration":1}}]})");
    EXPECT_THAT(recorder.take(), ElementsAre("Root.queue"));
    ASSERT_EQ(list->itemCount(), 3u);
    EXPECT_EQ(titleOf(list->acquireItem(2)), "C");
    // The replaced row is a new runtime object: a new data object mirrors
    // it, and the old one, which rows never update, keeps what it showed.
    const auto replaced = list->acquireItem(0);
    EXPECT_NE(replaced, bound);
    EXPECT_EQ(titleOf(replaced), "A2");
    EXPECT_EQ(titleOf(bound), "A");

    push(R"({"rows":[{"list":"queue","remove":0},{"list":"queue","remove":0}]})");
    EXPECT_THAT(recorder.take(), ElementsAre("Root.queue"));
    EXPECT_EQ(list->itemCount(), 1u);
    EXPECT_EQ(titleOf(list->acquireItem(0)), "C");
}

// ---------------------------------------------------------------------------
// Dynamic expansion of a string value

TEST_F(RuntimeSource, AStringWithBothPropertiesIsAnUnpagedListOneOneShotQueryPerKey) {
    start(R"(<sources>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums"><field name="title" type="string"/></dynamic_source>
  <player uri="servicedata://player">
    <string name="artistAlbums" dynamic_source="albums" lookup_column="artist_id"/>
    <string name="singles" dynamic_source="singles" lookup_column="artist_id"/>
  </player></sources>)");
    auto list = at<TethrixDataObjectList>("artistAlbums");
    service.takeQueries();
    // Answers each key's query, in order, with one title.
    const auto answerAll = [&](std::vector<std::string> filters, std::vector<std::string> titles) {
        const auto queries = service.takeQueries();
        ASSERT_EQ(queries.size(), titles.size());
        for (std::size_t i = 0; i < queries.size(); ++i) {
            EXPECT_EQ(queries[i].filter, filters[i]);
            service.reply(queries[i], {{"title", ContentDataTypeString}}, {{titles[i]}}, 0);
        }
        host.runUntilIdle();
    };
    const auto titleOf = [&](std::size_t index) {
        return std::dynamic_pointer_cast<DataObjectString>(list->getItem(index)->findChild("title"))->getValue();
    };

    push(R"({"values":{"artistAlbums":"7;;9"}})");
    answerAll({"artist_id=7", "artist_id=9"}, {"Blue", "Red"});
    // A shorter list of keys leaves the rows behind it, unlike a content
    // result's key list.
    push(R"({"values":{"artistAlbums":"5"}})");
    answerAll({"artist_id=5"}, {"five"});
    EXPECT_EQ(list->itemCount(), 3u);
    EXPECT_EQ(titleOf(0), "five");
    EXPECT_EQ(titleOf(2), "Red");
    EXPECT_THAT(log.messages(LogLevel::Error), IsEmpty());

    // An unknown dynamic source is reported at each change.
    push(R"({"values":{"singles":"7"}})");
    EXPECT_THAT(service.queries(), IsEmpty());
    EXPECT_EQ(at<TethrixDataObjectList>("singles")->itemCount(), 0u);
    EXPECT_THAT(log.lines(), ElementsAre("error tethrix: DynamicSource not found with name 'singles' (runtime)"));
}

}  // namespace
}  // namespace test
}  // namespace zarvo
