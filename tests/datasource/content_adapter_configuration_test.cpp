#include "datasource/content_adapter_configuration.h"

#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using Field = ContentAdapterConfiguration::Field;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> fieldNames(const ContentAdapterConfiguration& config) {
    std::vector<std::string> names;
    for (const Field& field : config.fields) {
        names.push_back(field.name);
    }
    return names;
}

TEST(ContentAdapterConfigurationTest, FieldMergeCopiesTypeAlwaysAndStringsOnlyWhenGiven) {
    Field target("art", DataObject::TypeString, "cover");
    target.preloadUrl = "old.png";
    target.dynamicSource = "albums";
    target.lookupColumn = "id";

    Field other("", DataObject::TypeInteger, "cover");
    other.preloadUrl = "new.png";
    EXPECT_TRUE(target.fillOverrideValues(other));
    EXPECT_EQ(target.type, DataObject::TypeInteger);
    EXPECT_EQ(target.column, "art");
    EXPECT_EQ(target.preloadUrl, "new.png");
    EXPECT_EQ(target.dynamicSource, "albums");
    EXPECT_EQ(target.lookupColumn, "id");

    Field columns("picture", DataObject::TypeString, "cover");
    columns.dynamicSource = "artists";
    columns.lookupColumn = "key";
    EXPECT_TRUE(target.fillOverrideValues(columns));
    EXPECT_EQ(target.column, "picture");
    EXPECT_EQ(target.dynamicSource, "artists");
    EXPECT_EQ(target.lookupColumn, "key");
}

class ConfigurationMergeTest : public testing::Test {
protected:
    ConfigurationMergeTest() {
        target.uri = other.uri = "content://com.tavelorix.content/tracks";
        target.name = "tracks";
        target.filter = "year=1990";
        target.sort = "title";
        target.dynamicSource = "tracksByKey";
        target.limitIndex = 5;
        target.limitCount = 7;
        target.blockSize = 50;
        target.type = ContentAdapterConfiguration::List;
        target.singleShot = true;
        target.fields = {Field("title", DataObject::TypeString, "title"), Field("art", DataObject::TypeString, "cover")};
    }

    ContentAdapterConfiguration target;
    ContentAdapterConfiguration other;
};

TEST_F(ConfigurationMergeTest, EmptyStringsKeepButNumbersAndTypeResetToTheOthersDefaults) {
    testkit::LogCapture log;
    EXPECT_TRUE(target.fillOverrideValues(other));

    EXPECT_EQ(target.name, "tracks");
    EXPECT_EQ(target.filter, "year=1990");
    EXPECT_EQ(target.sort, "title");
    EXPECT_EQ(target.dynamicSource, "tracksByKey");
    EXPECT_EQ(target.limitIndex, 0u);
    EXPECT_EQ(target.limitCount, 0u);
    EXPECT_EQ(target.blockSize, 0u);
    EXPECT_EQ(target.type, ContentAdapterConfiguration::Single);
    EXPECT_FALSE(target.singleShot);
    EXPECT_THAT(fieldNames(target), ElementsAre("title", "cover"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ConfigurationMergeTest, GivenValuesReplace) {
    other.name = "songs";
    other.filter = "year=2000";
    other.sort = "artist";
    other.dynamicSource = "songsByKey";
    other.blockSize = 200;
    other.runtimeData = std::make_shared<RuntimeDataObject>(nullptr, "", "");
    EXPECT_TRUE(target.fillOverrideValues(other));

    EXPECT_EQ(target.name, "songs");
    EXPECT_EQ(target.filter, "year=2000");
    EXPECT_EQ(target.sort, "artist");
    EXPECT_EQ(target.dynamicSource, "songsByKey");
    EXPECT_EQ(target.blockSize, 200u);
    EXPECT_EQ(target.runtimeData, other.runtimeData);

    // A later record without a tree keeps the shared one.
    ContentAdapterConfiguration plain;
    plain.uri = target.uri;
    EXPECT_TRUE(target.fillOverrideValues(plain));
    EXPECT_EQ(target.runtimeData, other.runtimeData);
}

TEST_F(ConfigurationMergeTest, FieldsMergeByNameInPlaceAndNewOnesMoveToTheEnd) {
    other.fields = {Field("artist", DataObject::TypeString, "artist"), Field("id", DataObject::TypeInteger, "cover"),
                    Field("title", DataObject::TypeString, "album")};
    EXPECT_TRUE(target.fillOverrideValues(other));

    // "album" reads the column "title" like the field "title": separate fields all the same.
    EXPECT_THAT(fieldNames(target), ElementsAre("title", "cover", "artist", "album"));
    EXPECT_EQ(target.fields[1].column, "id");
    EXPECT_EQ(target.fields[1].type, DataObject::TypeInteger);
    EXPECT_EQ(target.fields[3].column, "title");

    EXPECT_EQ(other.getField("artist"), nullptr);
    EXPECT_EQ(other.getField("album"), nullptr);
    ASSERT_NE(other.getField("cover"), nullptr);
    EXPECT_EQ(other.getField("cover")->column, "id");
}

}  // namespace
}  // namespace zarvo
