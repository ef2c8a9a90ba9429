#include <zarvo/log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace zarvo {
namespace {

enum class Colour { Red = 3, Blue = 12 };
enum PlainState : int { StateUp = 1, StateLost = 2 };

template <typename... Args>
std::string format(string_view pattern, const Args&... args) {
    detail::LogRecord record(LogLevel::Info, "c", "f", 1);
    const detail::LogArgumentTypeEraser erased[] = {detail::LogArgumentTypeEraser(args)...,
                                                    detail::LogArgumentTypeEraser(0)};
    record.appendFormattedMessage(pattern, erased, sizeof...(Args));
    return record.message;
}

TEST(LogFormatTest, PlaceholdersTakeArgumentsInOrderOrByPositionAndStayWithoutOne) {
    const std::pair<const char*, std::string> cases[] = {
        {"{} and {}", "a and b"},
        {"{1} before {0}", "b before a"},
        {"{0}{0}{1}", "aab"},
        // "{}" keeps its own running count, whatever "{N}" did before.
        {"{1} {} {}", "b a b"},
        {"{} {2} {}", "a {2} b"},
        {"no placeholders", "no placeholders"},
        {"{x} {{}} {", "{x} {a} {"},
        {"tail {}", "tail a"},
        {"{99999999999999999999}", "{99999999999999999999}"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(format(c.first, std::string("a"), "b"), c.second) << c.first;
    }
    EXPECT_EQ(format("Could not find target {} for block_size-element"),
              "Could not find target {} for block_size-element");
    EXPECT_EQ(format("{0} of {1} and {}", 7), "7 of {1} and 7");
}

TEST(LogFormatTest, ValuesRenderAsTextAndNumbersAndDoublesAsTheShortestTextThatReadsBack) {
    EXPECT_EQ(format("{}|{}|{}|{}", -12, 4000000000u, 9223372036854775807LL, static_cast<unsigned char>(200)),
              "-12|4000000000|9223372036854775807|200");
    EXPECT_EQ(format("{} {}", Colour::Blue, StateLost), "12 2");
    EXPECT_EQ(format("{} {} {}", true, false, 'x'), "true false x");
    const char* nothing = nullptr;
    EXPECT_EQ(format("[{}] [{}]", string_view("view"), nothing), "[view] [(null)]");
    EXPECT_EQ(format("{} {} {} {} {} {} {}", 0.1, 2.5, 100.0, 1.0 / 3.0, -1234567.0, 1e21, 1.5f),
              "0.1 2.5 100 0.3333333333333333 -1234567 1e+21 1.5");
}

}  // namespace
}  // namespace zarvo
