#include <zarvo/content_query.h>

#include <boost/any.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {
namespace {

ContentResult makeResult() {
    return ContentResult(40,
                         {{"id", ContentDataTypeInteger}, {"title", ContentDataTypeString}},
                         {boost::any(1), boost::any(std::string("One")), boost::any(2), boost::any(std::string("Two"))});
}

TEST(ContentResultTest, CellsAreReadRowMajorAtTheCurrentRow) {
    ContentResult result = makeResult();
    EXPECT_EQ(result.getStartIndex(), 40u);
    EXPECT_EQ(result.getRowCount(), 2u);
    EXPECT_EQ(result.getColumnCount(), 2u);
    EXPECT_EQ(result.getColumnName(1), "title");
    EXPECT_EQ(result.getColumnType(1), ContentDataTypeString);

    EXPECT_EQ(boost::any_cast<int>(result.getValueAny(0)), 1);
    result.setRowIndex(1);
    EXPECT_EQ(boost::any_cast<int>(result.getValueAny(0)), 2);
    EXPECT_EQ(boost::any_cast<std::string>(result.getValueAny(1)), "Two");
}

TEST(ContentResultTest, OutOfRangeGivesEmptyValuesNotCrashes) {
    ContentResult result = makeResult();
    EXPECT_TRUE(result.getValueAny(2).empty());
    EXPECT_EQ(result.getColumnValue(2), "");
    EXPECT_EQ(result.getColumnName(2), "");
    EXPECT_EQ(static_cast<int>(result.getColumnType(2)), 0);
    result.setRowIndex(2);
    EXPECT_TRUE(result.getValueAny(0).empty());
    EXPECT_EQ(result.getColumnValue(0), "");
}

TEST(ContentResultTest, CellsThatDoNotFillWholeRowsAreRefused) {
    EXPECT_THROW(ContentResult(0, {{"a", ContentDataTypeInteger}, {"b", ContentDataTypeInteger}}, {boost::any(1)}),
                 std::invalid_argument);
    EXPECT_THROW(ContentResult(0, {}, {boost::any(1)}), std::invalid_argument);
    EXPECT_EQ(ContentResult(0, {}, {}).getRowCount(), 0u);
}

struct TextCase {
    ContentDataType type;
    boost::any value;
    std::string text;
};

class ColumnValueTextTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(ColumnValueTextTest, RendersTheValueAsText) {
    const ContentResult result(0, {{"c", GetParam().type}}, {GetParam().value});
    EXPECT_EQ(result.getColumnValue(0), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ColumnValueTextTest,
    ::testing::Values(TextCase{ContentDataTypeInteger, boost::any(0), "0"},
                      TextCase{ContentDataTypeInteger, boost::any(-42), "-42"},
                      TextCase{ContentDataTypeInteger, boost::any(std::numeric_limits<int>::min()), "-2147483648"},
                      TextCase{ContentDataTypeFloat, boost::any(0.1f), "0.1"},
                      TextCase{ContentDataTypeFloat, boost::any(2.5f), "2.5"},
                      TextCase{ContentDataTypeFloat, boost::any(-3.0f), "-3"},
                      TextCase{ContentDataTypeFloat, boost::any(1e20f), "1e+20"},
                      TextCase{ContentDataTypeFloat, boost::any(std::numeric_limits<float>::infinity()), "inf"},
                      TextCase{ContentDataTypeBool, boost::any(true), "1"},
                      TextCase{ContentDataTypeBool, boost::any(false), "0"},
                      TextCase{ContentDataTypeString, boost::any(std::string("Ä b;c")), "Ä b;c"},
                      TextCase{ContentDataTypeString, boost::any(std::string()), ""}));

}  // namespace
}  // namespace zarvo
