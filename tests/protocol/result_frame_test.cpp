#include <tethrix/protocol/result_frame.h>

#include <gtest/gtest.h>

#include <limits>

namespace tethrix::protocol {
namespace {

Result sampleResult() {
    Result result;
    result.id = 0x0102030405060708u;
    result.startIndex = std::uint64_t{1} << 40;
    result.columns = {
        {"n", ColumnType::integer}, {"x", ColumnType::real}, {"b", ColumnType::boolean}, {"s", ColumnType::text}};
    result.rows = {
        {std::int64_t{std::numeric_limits<std::int64_t>::min()}, 0.1, true,
         std::string("\xC3\xA9t\xC3\xA9 \xF0\x9F\x8E\xB5")},
        {std::int64_t{std::numeric_limits<std::int64_t>::max()}, -1e300, false, std::string(300, 'a')},
        {std::int64_t{-1}, 3.0, false, std::string()},
    };
    return result;
}

TEST(ResultFrameTest, ResultsSurviveEncodeAndDecodeAndCanBeReaddressed) {
    Result empty;
    empty.id = 3;
    empty.columns = {{"only", ColumnType::text}};
    for (const Result& result : {sampleResult(), empty}) {
        std::string error;
        auto decoded = decodeResultFrame(encodeResultFrame(result), error);
        ASSERT_TRUE(decoded) << error;
        EXPECT_EQ(*decoded, result);
    }
    std::string frame = encodeResultFrame(sampleResult());
    ResultFrameWriter::readdress(frame, 99);
    EXPECT_EQ(ResultFrameReader::peekId(frame), std::optional<RequestId>(99));
    std::string error;
    EXPECT_EQ(decodeResultFrame(frame, error)->id, 99u);
}

TEST(ResultFrameTest, TextAndRealsAreWrittenAsTheJsonFormWritesThem) {
    Result result;
    result.columns = {{"s", ColumnType::text}, {"x", ColumnType::real}};
    result.rows = {{std::string("a\x80"
                                "b\xED\xA0\x80"),
                    std::numeric_limits<double>::infinity()},
                   {std::string("ok"), std::numeric_limits<double>::quiet_NaN()}};
    std::string error;
    auto decoded = decodeResultFrame(encodeResultFrame(result), error);
    ASSERT_TRUE(decoded) << error;
    const std::string r = "\xEF\xBF\xBD";
    EXPECT_EQ(std::get<std::string>(decoded->rows[0][0]), "a" + r + "b" + r + r + r);
    EXPECT_EQ(std::get<double>(decoded->rows[0][1]), std::numeric_limits<double>::max());
    EXPECT_EQ(std::get<double>(decoded->rows[1][1]), 0.0);
}

TEST(ResultFrameTest, DamagedFramesAreRefusedWithAReason) {
    const std::string good = encodeResultFrame(sampleResult());
    // Every frame cut short is refused, never read past its end.
    for (std::size_t length = 0; length < good.size(); ++length) {
        std::string error;
        EXPECT_FALSE(decodeResultFrame(good.substr(0, length), error)) << length;
        EXPECT_EQ(error.rfind("result frame: ", 0), 0u) << error;
    }
    auto changed = [&good](std::size_t at, char byte) {
        std::string frame = good;
        frame[at] = byte;
        return frame;
    };
    Result oneBool;
    oneBool.columns = {{"b", ColumnType::boolean}};
    oneBool.rows = {{true}};
    std::string badBool = encodeResultFrame(oneBool);
    badBool.back() = '\2';
    Result manyRows = oneBool;
    std::string tooManyRows = encodeResultFrame(manyRows);
    tooManyRows[tooManyRows.size() - 2] = '\x7F';  // the high byte of the row count
    const struct {
        const char* name;
        std::string frame;
        const char* reasonPart;
    } cases[] = {
        {"another kind", changed(0, '\x02'), "not a result frame"},
        {"another version", changed(1, '\x09'), "unknown version 9"},
        {"bytes after the rows", good + "x", "1 bytes after the last row"},
        {"a boolean of 2", badBool, "neither 0 nor 1"},
        {"more rows than bytes", tooManyRows, "rows do not fit the frame"},
        {"a column type of 7", changed(good.find("x") + 1, '\x07'), "unknown type 7"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        EXPECT_FALSE(decodeResultFrame(c.frame, error));
        EXPECT_NE(error.find(c.reasonPart), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace tethrix::protocol
