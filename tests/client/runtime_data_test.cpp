#include <zarvo/runtime_data.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using ::testing::ElementsAre;

TEST(RuntimeDataTest, HandlersFireOnlyWhenTheValueChanges) {
    auto volume = std::make_shared<RuntimeDataObjectInteger>(nullptr, "volume", 3);
    std::vector<int> seen;
    volume->addModifiedNotificationHandler([&](RuntimeDataObject* changed) {
        seen.push_back(static_cast<RuntimeDataObjectInteger*>(changed)->getValue());
    });
    volume->setValue(3);
    volume->setValue(4);
    EXPECT_TRUE(volume->setValueFromString("4"));
    EXPECT_FALSE(volume->setValueFromString("four"));
    EXPECT_TRUE(volume->setValueFromString("-5"));
    EXPECT_THAT(seen, ElementsAre(4, -5));

    // NaN never equals itself, so each write of it counts as a change.
    auto gain = std::make_shared<RuntimeDataObjectReal>(nullptr, "gain", std::nan(""));
    int nanChanges = 0;
    gain->addModifiedNotificationHandler([&](RuntimeDataObject*) { ++nanChanges; });
    gain->setValue(std::nan(""));
    EXPECT_EQ(nanChanges, 1);
}

TEST(RuntimeDataTest, TextIsParsedWholeOrTheValueIsLeft) {
    const struct {
        std::shared_ptr<RuntimeDataObject> node;
        std::string input;
        bool accepted;
        std::string text;  // getValueAsString afterwards
    } cases[] = {
        {std::make_shared<RuntimeDataObjectInteger>(nullptr, "i", 1), "+12", true, "12"},
        {std::make_shared<RuntimeDataObjectInteger>(nullptr, "i", 1), "12x", false, "1"},
        {std::make_shared<RuntimeDataObjectInteger>(nullptr, "i", 1), "99999999999", false, "1"},
        {std::make_shared<RuntimeDataObjectReal>(nullptr, "r", 1.0), "0.1", true, "0.1"},
        {std::make_shared<RuntimeDataObjectReal>(nullptr, "r", 1.0), "-2.5e3", true, "-2500"},
        {std::make_shared<RuntimeDataObjectReal>(nullptr, "r", 1.0), " 2", false, "1"},
        {std::make_shared<RuntimeDataObjectBoolean>(nullptr, "b", false), "true", true, "1"},
        {std::make_shared<RuntimeDataObjectBoolean>(nullptr, "b", true), "yes", false, "1"},
        {std::make_shared<RuntimeDataObjectString>(nullptr, "s", "a"), "b;c", true, "b;c"},
        {std::make_shared<RuntimeDataObject>(nullptr, "o", "text"), "other", true, "other"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.node->setValueFromString(c.input), c.accepted) << c.input;
        EXPECT_EQ(c.node->getValueAsString(), c.text) << c.input;
    }
}

TEST(RuntimeDataTest, ListRowsChangeInPlaceAndTellTheListsHandlers) {
    auto list = std::make_shared<RuntimeDataObjectList>(nullptr, "queue");
    int changes = 0;
    list->addModifiedNotificationHandler([&](RuntimeDataObject*) { ++changes; });
    auto a = std::make_shared<RuntimeDataObjectString>(nullptr, "row", "a");
    auto b = std::make_shared<RuntimeDataObjectString>(nullptr, "row", "b");
    auto c = std::make_shared<RuntimeDataObjectString>(nullptr, "row", "c");

    list->insertItem(0, a);
    list->insertItem(5, c);  // beyond the end: appended
    list->insertItem(1, b);
    EXPECT_EQ(list->getType(), RuntimeDataObject::TypeList);
    ASSERT_EQ(list->itemCount(), 3u);
    EXPECT_EQ(list->getItem(1), b);
    EXPECT_EQ(list->getItem(3), nullptr);

    list->removeItem(0);
    list->replaceItem(0, c);
    list->removeItem(9);
    EXPECT_EQ(list->itemCount(), 2u);
    EXPECT_EQ(list->getItem(0), c);
    EXPECT_EQ(changes, 5);
}

TEST(RuntimeDataTest, CloneIsDeepAndLeavesHandlersAndBindingsBehind) {
    auto list = std::make_shared<RuntimeDataObjectList>(nullptr, "queue");
    list->runtimeItemTemplate = std::make_shared<RuntimeDataObjectString>(nullptr, "row", "");
    auto row = std::make_shared<RuntimeDataObjectString>(nullptr, "row", "a");
    row->setStringProperty("lookup_column", "id");
    list->insertItem(0, row);
    int changes = 0;
    list->addModifiedNotificationHandler([&](RuntimeDataObject*) { ++changes; });

    auto copy = list->clone()->castTo<RuntimeDataObjectList>();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->getNameOverride(), "queue");
    ASSERT_EQ(copy->itemCount(), 1u);
    auto copiedRow = copy->getItem(0)->castTo<RuntimeDataObjectString>();
    ASSERT_NE(copiedRow, nullptr);
    EXPECT_NE(copiedRow, row);
    EXPECT_EQ(copiedRow->getValue(), "a");
    EXPECT_EQ(copiedRow->getStringProperty("lookup_column", ""), "id");
    ASSERT_NE(copy->runtimeItemTemplate, nullptr);
    EXPECT_NE(copy->runtimeItemTemplate, list->runtimeItemTemplate);

    copiedRow->setValue("b");
    copy->removeItem(0);
    EXPECT_EQ(row->getValue(), "a");
    EXPECT_EQ(changes, 0);
}

}  // namespace
}  // namespace zarvo
