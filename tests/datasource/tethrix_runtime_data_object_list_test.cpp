// The list that mirrors a runtime list, as a list view drives it: rows built
// on acquire and unlinked on release, the template, and rows that change
// with updates from the scripted service.
#include "runtime_source_fixture.h"

#include "datasource/tethrix_data_object_list.h"
#include "datasource/tethrix_runtime_data_object_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

class TethrixRuntimeDataObjectListTest : public test::RuntimeSourceFixture {
protected:
    void SetUp() override {
        start({runtimeSource(queueXml)});
        list = at<TethrixRuntimeDataObjectList>("queue");
        ASSERT_NE(list, nullptr);
        runtimeList = configs[0]->runtimeData->findChild("queue")->castTo<RuntimeDataObjectList>();
    }

    static std::string titleOf(const std::shared_ptr<DataObject>& row) {
        auto title = std::dynamic_pointer_cast<DataObjectString>(row->findChild("title"));
        return title ? title->getValue() : "(none)";
    }

    std::shared_ptr<TethrixRuntimeDataObjectList> list;
    std::shared_ptr<RuntimeDataObjectList> runtimeList;
};

TEST_F(TethrixRuntimeDataObjectListTest, ARowIsBuiltOnceUntilItIsReleased) {
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

TEST_F(TethrixRuntimeDataObjectListTest, AnIndexOutsideTheRowsGivesTheEmptyObject) {
    const auto item = list->acquireItem(2);

    EXPECT_EQ(item->getName(), "empty");
    EXPECT_EQ(item->getChildCount(), 0u);
    EXPECT_EQ(list->acquireItem(5), item);
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("Invalid index in acquireItem. index=2 amount=2",
                                                           "Invalid index in acquireItem. index=5 amount=2"));
    EXPECT_EQ(log.entries()[0].category, "tethrix");

    log.clear();
    list->releaseItem(2);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(list->acquireItem(1)->getName(), "track");
}

TEST_F(TethrixRuntimeDataObjectListTest, TheTemplateIsMadeOnceAndIsNoRow) {
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

TEST_F(TethrixRuntimeDataObjectListTest, RowChangesNotifyTheListOncePerUpdate) {
    recorder.watch(*list, "queue");
    const auto bound = list->acquireItem(0);

    push(R"({"rows":[{"list":"queue","insert":2,"row":{"title":"C"}},)"
         R"({"list":"queue","replace":0,"row":{"title":"A2","duration":1}}]})");

    EXPECT_THAT(recorder.take(), ElementsAre("queue"));
    ASSERT_EQ(list->itemCount(), 3u);
    EXPECT_EQ(titleOf(list->acquireItem(2)), "C");
    // The replaced row is a new runtime object: a new data object mirrors
    // it, and the old one, which rows never update, keeps what it showed.
    const auto replaced = list->acquireItem(0);
    EXPECT_NE(replaced, bound);
    EXPECT_EQ(titleOf(replaced), "A2");
    EXPECT_EQ(titleOf(bound), "A");
}

TEST_F(TethrixRuntimeDataObjectListTest, ARowReplacedByAnEqualOneStaysBound) {
    recorder.watch(*list, "queue");
    const auto bound = list->acquireItem(0);

    push(R"({"rows":[{"list":"queue","replace":0,"row":{"title":"A","duration":1}}]})");

    EXPECT_THAT(recorder.take(), IsEmpty());
    EXPECT_EQ(list->acquireItem(0), bound);
}

TEST_F(TethrixRuntimeDataObjectListTest, AShrunkListTurnsAHeldIndexAway) {
    recorder.watch(*list, "queue");
    list->acquireItem(1);

    push(R"({"rows":[{"list":"queue","remove":0}]})");

    EXPECT_THAT(recorder.take(), ElementsAre("queue"));
    EXPECT_EQ(list->itemCount(), 1u);
    EXPECT_EQ(titleOf(list->acquireItem(0)), "B");
    EXPECT_EQ(list->acquireItem(1)->getName(), "empty");
    list->releaseItem(1);
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("Invalid index in acquireItem. index=1 amount=1"));
}

TEST_F(TethrixRuntimeDataObjectListTest, ReleasingTheTreeOpensTheRingOfListAdapterAndRuntimeTree) {
    list->acquireItem(0);
    list->getItemTemplate();  // its dynamic list holds the adapter too
    std::weak_ptr<ContentAdapter> adapter = manager.getAdapters().front();
    manager.destroyAllAdapters();
    ASSERT_FALSE(adapter.expired());  // the list keeps it, by design

    TethrixDataObjectList::releaseAdapters(root);

    EXPECT_TRUE(adapter.expired());
    EXPECT_EQ(list->itemCount(), 0u);
}

}  // namespace
}  // namespace zarvo
