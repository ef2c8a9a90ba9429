#include <zarvo/string_utils.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zarvo {
namespace {

TEST(SplitStringTest, KeepsEveryPieceBetweenSeparators) {
    struct Case {
        std::string text;
        std::string separators;
        std::vector<std::string> pieces;
    };
    const Case cases[] = {
        {"a;b;c", ";", {"a", "b", "c"}},
        {";a;;b", ";", {"", "a", "", "b"}},
        {"a;", ";", {"a", ""}},
        {";", ";", {"", ""}},
        {"", ";", {""}},
        {"abc", ";", {"abc"}},
        {"a,b;c", ";,", {"a", "b", "c"}},
        {"a;b", "", {"a;b"}},
        {"key 1;key 2", ";", {"key 1", "key 2"}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(splitString(c.text, c.separators), c.pieces) << '"' << c.text << "\" by \"" << c.separators << '"';
    }
}

}  // namespace
}  // namespace zarvo
