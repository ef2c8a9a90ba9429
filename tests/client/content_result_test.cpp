#include <zarvo/content_query.h>

#include <boost/any.hpp>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace zarvo {
namespace {

TEST(ContentResultTest, CellsAreReadRowMajorAtTheCurrentRowAndOutOfRangeGivesEmptyValues) {
    ContentResult result(40, {{"id", ContentDataTypeInteger}, {"title", ContentDataTypeString}},
                         {boost::any(1), boost::any(std::string("One")), boost::any(2), boost::any(std::string("Two"))});
    EXPECT_EQ(result.getStartIndex(), 40u);
    EXPECT_EQ(result.getRowCount(), 2u);
    EXPECT_EQ(result.getColumnCount(), 2u);
    EXPECT_EQ(result.getColumnName(1), "title");
    EXPECT_EQ(result.getColumnType(1), ContentDataTypeString);
    EXPECT_EQ(boost::any_cast<int>(result.getValueAny(0)), 1);
    EXPECT_TRUE(result.getValueAny(2).empty());
    EXPECT_EQ(result.getColumnValue(2), "");
    EXPECT_EQ(result.getColumnName(2), "");
    EXPECT_EQ(static_cast<int>(result.getColumnType(2)), 0);
    result.setRowIndex(1);
    EXPECT_EQ(boost::any_cast<int>(result.getValueAny(0)), 2);
    EXPECT_EQ(boost::any_cast<std::string>(result.getValueAny(1)), "Two");
    result.setRowIndex(2);
    EXPECT_TRUE(result.getValueAny(0).empty());
    EXPECT_EQ(result.getColumnValue(0), "");

    EXPECT_THROW(ContentResult(0, {{"a", ContentDataTypeInteger}, {"b", ContentDataTypeInteger}}, {boost::any(1)}),
                 std::invalid_argument);
    EXPECT_THROW(ContentResult(0, {}, {boost::any(1)}), std::invalid_argument);
    EXPECT_EQ(ContentResult(0, {}, {}).getRowCount(), 0u);
}

TEST(ContentResultTest, ColumnValueRendersEachTypeAsText) {
    const struct {
        ContentDataType type;
        boost::any value;
        std::string text;
    } cases[] = {
        {ContentDataTypeInteger, boost::any(0), "0"},
        {ContentDataTypeInteger, boost::any(-42), "-42"},
        {ContentDataTypeInteger, boost::any(std::numeric_limits<int>::min()), "-2147483648"},
        {ContentDataTypeFloat, boost::any(0.1f), "0.1"},
        {ContentDataTypeFloat, boost::any(2.5f), "2.5"},
        {ContentDataTypeFloat, boost::any(-3.0f), "-3"},
        {ContentDataTypeFloat, boost::any(1e20f), "1e+20"},
        {ContentDataTypeFloat, boost::any(std::numeric_limits<float>::infinity()), "inf"},
        {ContentDataTypeBool, boost::any(true), "1"},
        {ContentDataTypeBool, boost::any(false), "0"},
        {ContentDataTypeString, boost::any(std::string("Ä b;c")), "Ä b;c"},
        {ContentDataTypeString, boost::any(std::string()), ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ContentResult(0, {{"c", c.type}}, {c.value}).getColumnValue(0), c.text) << c.text;
    }
}

}  // namespace
}  // namespace zarvo
