#include <tethrix/protocol/codec.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace tethrix::protocol {
namespace {

Result sampleResult() {
    Result result;
    result.id = 42;
    result.startIndex = 200;
    result.columns = {
        {"n", ColumnType::integer}, {"x", ColumnType::real}, {"b", ColumnType::boolean}, {"s", ColumnType::text}};
    result.rows = {
        {std::int64_t{std::numeric_limits<std::int64_t>::min()}, 0.1, true, std::string("quote \" and \\ and \n")},
        {std::int64_t{std::numeric_limits<std::int64_t>::max()}, -1e300, false,
         std::string("\xC3\xA9t\xC3\xA9 \xF0\x9F\x8E\xB5")},
        {std::int64_t{0}, 3.0, false, std::string()},
    };
    return result;
}

Query sampleQuery() {
    Query query;
    query.id = std::numeric_limits<std::uint64_t>::max();
    query.uri = "content://com.tavelorix.content/tracks";
    query.columns = {"title", "duration"};
    query.filter = "name = 'it''s' AND id >= 3";
    query.sort = "title DESC";
    query.index = std::numeric_limits<std::int32_t>::max();
    query.count = std::numeric_limits<std::int32_t>::min();
    return query;
}

TEST(CodecTest, EveryMessageSurvivesEncodeAndDecode) {
    Error withEverything;
    withEverything.id = 5;
    withEverything.reason = "filter: unknown column \"x\"";
    withEverything.position = 17;
    Error protocolError;
    protocolError.reason = "not JSON";
    Result empty;
    empty.id = 1;

    const std::vector<Message> messages = {
        Hello{},
        Hello{2, "tethrix-service", "http://127.0.0.1:8080/", "binary"},
        sampleQuery(),
        Query{},
        sampleResult(),
        empty,
        withEverything,
        protocolError,
        Cancel{3},
        Subscribe{4, "servicedata://player"},
        Update{4, "a/b", "<value>1</value>"},
        Unsubscribe{4},
        Ping{0},
        Pong{std::numeric_limits<std::uint64_t>::max()},
    };
    for (const auto& message : messages) {
        std::string frame = encode(message);
        Decoded decoded = decode(frame, maxResultFrameBytes);
        ASSERT_TRUE(decoded) << frame << ": " << decoded.error.reason;
        EXPECT_EQ(typeName(*decoded.message), std::string(typeName(message)));
        EXPECT_TRUE(*decoded.message == message) << frame;
    }
}

TEST(CodecTest, MessagesHaveTheDocumentedWireForm) {
    Result result;
    result.id = 7;
    result.startIndex = 200;
    result.columns = {{"title", ColumnType::text}, {"duration", ColumnType::real}};
    result.rows = {{std::string("Blue Hour"), 215.5}};
    Error error;
    error.reason = "bad";
    const std::vector<std::pair<Message, std::string>> cases = {
        {Query{
             7, "content://com.tavelorix.content/tracks", {"title", "duration"}, "artist_id=42", "title ASC", 200, 200},
         R"({"type":"query","id":7,"uri":"content://com.tavelorix.content/tracks","columns":["title","duration"],)"
         R"("filter":"artist_id=42","sort":"title ASC","index":200,"count":200})"},
        {result, R"({"type":"result","id":7,"startIndex":200,"columns":[{"name":"title","type":4},)"
                 R"({"name":"duration","type":2}],"rows":[["Blue Hour",215.5]]})"},
        {error, R"({"type":"error","reason":"bad"})"},
    };
    for (const auto& [message, wire] : cases)
        EXPECT_EQ(encode(message), wire);
}

TEST(CodecTest, EncoderRepairsInvalidUtf8AndSendsNonFiniteRealsAsFiniteNumbers) {
    Result result;
    result.columns = {{"s", ColumnType::text}, {"x", ColumnType::real}};
    // A stray continuation byte, an overlong slash, a surrogate and a cut-off sequence.
    const double infinity = std::numeric_limits<double>::infinity();
    result.rows = {{std::string("a\x80"
                                "b\xC0\xAF"
                                "c\xED\xA0\x80"
                                "d\xE2\x82"),
                    infinity},
                   {std::string(), -infinity},
                   {std::string(), std::numeric_limits<double>::quiet_NaN()}};
    Decoded decoded = decode(encode(result), maxResultFrameBytes);
    ASSERT_TRUE(decoded) << decoded.error.reason;
    const auto& rows = std::get<Result>(*decoded.message).rows;
    const std::string r = "\xEF\xBF\xBD";
    EXPECT_EQ(std::get<std::string>(rows[0][0]), "a" + r + "b" + r + r + "c" + r + r + r + "d" + r + r);
    EXPECT_EQ(std::get<double>(rows[0][1]), std::numeric_limits<double>::max());
    EXPECT_EQ(std::get<double>(rows[1][1]), std::numeric_limits<double>::lowest());
    EXPECT_EQ(std::get<double>(rows[2][1]), 0.0);
}

TEST(CodecTest, RealColumnsAcceptIntegersAndIntegerColumnsRefuseFractions) {
    Decoded real =
        decode(R"({"type":"result","id":1,"startIndex":0,"columns":[{"name":"x","type":2}],"rows":[[187]]})");
    ASSERT_TRUE(real) << real.error.reason;
    EXPECT_EQ(std::get<double>(std::get<Result>(*real.message).rows[0][0]), 187.0);

    Decoded integer =
        decode(R"({"type":"result","id":1,"startIndex":0,"columns":[{"name":"n","type":1}],"rows":[[1.0]]})");
    EXPECT_FALSE(integer);
    EXPECT_EQ(integer.error.id, std::optional<RequestId>(1));
}

TEST(CodecTest, RealsPassUnchanged) {
    // Doubles whose shortest text needs 16 or 17 digits, as ordinary data
    // holds them, and extremes; a sloppy text-to-double conversion changes
    // many such by a unit in the last place.
    std::mt19937_64 random(99);
    std::uniform_real_distribution<double> durations(0, 1000);
    Result result;
    result.columns = {{"x", ColumnType::real}};
    for (int i = 0; i < 2000; ++i)
        result.rows.push_back({durations(random)});
    for (double d : {0.1 + 0.2, 1.0 / 3, 474.59380568556355, 6.689921856898562e-217, 5e-324,
                     std::numeric_limits<double>::max(), -std::numeric_limits<double>::min(), -0.0}) {
        result.rows.push_back({d});
    }
    Decoded decoded = decode(encode(result), maxResultFrameBytes);
    ASSERT_TRUE(decoded) << decoded.error.reason;
    const auto& rows = std::get<Result>(*decoded.message).rows;
    ASSERT_EQ(rows.size(), result.rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(std::get<double>(rows[i][0]), std::get<double>(result.rows[i][0])) << i;
    }
}

struct HostileFrame {
    const char* name;
    std::string frame;
    std::string reasonPart;
    std::optional<RequestId> id;
};

const std::string goodQueryTail = R"("uri":"content://a/t","columns":[],"filter":"","sort":"",)";

std::vector<HostileFrame> hostileFrames() {
    return {
        {"empty", "", "not JSON", std::nullopt},
        {"garbage", "hello", "not JSON", std::nullopt},
        {"truncated", R"({"type":"ping","id":)", "not JSON", std::nullopt},
        {"trailing data", R"({"type":"ping","id":1} {})", "not JSON", std::nullopt},
        {"array", "[1,2]", "must be a JSON object", std::nullopt},
        {"no type", R"({"id":1})", "\"type\"", std::nullopt},
        {"type not a string", R"({"type":5})", "\"type\"", std::nullopt},
        {"unknown type", R"({"type":"drop table"})", "unknown message type \"drop table\"", std::nullopt},
        {"missing count", R"({"type":"query","id":3,)" + goodQueryTail + R"("index":0})", "missing \"count\"", 3},
        {"unknown key", R"({"type":"query","id":3,)" + goodQueryTail + R"("index":0,"count":0,"colums":[]})",
         "unknown key \"colums\"", 3},
        {"index as text", R"({"type":"query","id":3,)" + goodQueryTail + R"("index":"0","count":0})",
         "\"index\" must be an integer", 3},
        {"index beyond 32 bits", R"({"type":"query","id":3,)" + goodQueryTail + R"("index":2147483648,"count":0})",
         "\"index\" must be an integer from -2147483648 to 2147483647", 3},
        {"index with fraction", R"({"type":"query","id":3,)" + goodQueryTail + R"("index":1.0,"count":0})",
         "\"index\" must be an integer", 3},
        {"negative id", R"({"type":"cancel","id":-1})", "\"id\" must be an integer from 0", std::nullopt},
        {"id beyond 64 bits", R"({"type":"cancel","id":18446744073709551616})", "\"id\" must be an integer",
         std::nullopt},
        {"column not a string",
         R"({"type":"query","id":4,"uri":"u","columns":[1],"filter":"","sort":"","index":0,"count":0})",
         "\"columns\" must hold strings only", 4},
        {"row too short",
         R"({"type":"result","id":5,"startIndex":0,"columns":[{"name":"a","type":1},{"name":"b","type":1}],"rows":[[1]]})",
         "row 0 has 1 cells for 2 columns", 5},
        {"text in an integer column",
         R"({"type":"result","id":5,"startIndex":0,"columns":[{"name":"a","type":1}],"rows":[["1"]]})",
         "row 0, column 0 must be a 64-bit integer", 5},
        {"unknown column type",
         R"({"type":"result","id":5,"startIndex":0,"columns":[{"name":"a","type":5}],"rows":[]})",
         "\"type\" must be an integer from 1 to 4", 5},
        {"real out of range",
         R"({"type":"result","id":5,"startIndex":0,"columns":[{"name":"a","type":2}],"rows":[[1e400]]})",
         "out of range", 5},
        {"invalid UTF-8", "{\"type\":\"subscribe\",\"id\":1,\"uri\":\"\xFF\"}", "not JSON", std::nullopt},
        {"lone surrogate", R"({"type":"subscribe","id":1,"uri":"\udc00"})", "not JSON", std::nullopt},
        {"deep nesting", std::string(100, '[') + std::string(100, ']'), "not JSON", std::nullopt},
        {"hello version as text", R"({"type":"hello","version":"1"})", "\"version\" must be an integer", std::nullopt},
        {"error without reason", R"({"type":"error","id":9})", "missing \"reason\"", 9},
        {"repeated key", R"({"type":"ping","id":1,"id":2})", "key \"id\" given twice", std::nullopt},
        {"repeated empty key", R"({"type":"ping","":1,"":2})", "key \"\" given twice", std::nullopt},
    };
}

TEST(CodecTest, HostileFramesAreRefusedWithAReason) {
    for (const auto& hostile : hostileFrames()) {
        SCOPED_TRACE(hostile.name);
        Decoded decoded = decode(hostile.frame);
        ASSERT_FALSE(decoded);
        EXPECT_NE(decoded.error.reason.find(hostile.reasonPart), std::string::npos) << decoded.error.reason;
        EXPECT_EQ(decoded.error.id, hostile.id);
    }
}

TEST(CodecTest, FramesAboveTheLimitAreRefusedBeforeParsing) {
    std::string frame = R"({"type":"subscribe","id":1,"uri":")" + std::string(2000, 'x') + R"("})";
    Decoded small = decode(frame, 1000);
    ASSERT_FALSE(small);
    EXPECT_EQ(small.error.reason,
              "frame of " + std::to_string(frame.size()) + " bytes exceeds the limit of 1000 bytes");
    EXPECT_TRUE(decode(frame, frame.size()));
}

}  // namespace
}  // namespace tethrix::protocol
