// The XML grammar of runtime data trees: documents to trees, and the
// documents refused, each with one message that says where and why.
#include "runtime_data_dump.h"

#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace zarvo {
namespace {

using test::buildRuntimeData;
using test::dumpRuntimeData;
using ::testing::HasSubstr;

struct BuildCase {
    const char* what;
    std::string xml;
    std::string tree;  // dumpRuntimeData of the result
};

void PrintTo(const BuildCase& c, std::ostream* out) { *out << c.what; }

class RuntimeDataBuilderTest : public ::testing::TestWithParam<BuildCase> {
protected:
    testkit::LogCapture log;
};

TEST_P(RuntimeDataBuilderTest, BuildsTheDescribedTree) {
    const auto root = buildRuntimeData(GetParam().xml);
    ASSERT_NE(root, nullptr) << ::testing::PrintToString(log.lines());
    EXPECT_EQ(root->getType(), RuntimeDataObject::TypeObject);
    EXPECT_EQ(dumpRuntimeData(*root), GetParam().tree);
    EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(log.lines());
}

INSTANTIATE_TEST_SUITE_P(
    Documents, RuntimeDataBuilderTest,
    ::testing::Values(
        BuildCase{"an element without content", "<player service='player'/>", "()"},
        BuildCase{"values of each type, given and defaulted",
                  "<r><integer name='volume' value='-3'/><real name='gain' value='0.25'/>"
                  "<boolean name='muted' value='true'/><string name='title' value='Blue Hour'/>"
                  "<integer name='a'/><real name='b'/><boolean name='c'/><string name='d'/></r>",
                  "(volume:integer=-3,gain:real=0.25,muted:boolean=1,title:string=Blue Hour,"
                  "a:integer=0,b:real=0,c:boolean=0,d:string=)"},
        BuildCase{"the short type names of content fields",
                  "<r><int name='a' value='+7'/><float name='b' value='1e3'/><bool name='c' value='1'/></r>",
                  "(a:integer=7,b:real=1000,c:boolean=1)"},
        BuildCase{"reals that JSON could not carry", "<r><real name='a' value='nan'/><real name='b' value='-inf'/></r>",
                  "(a:real=nan,b:real=-inf)"},
        BuildCase{"other attributes become properties",
                  "<r><string name='albums' value='1;2' dynamic_source='albums' lookup_column='id'/>"
                  "<object name='player' role='main'/></r>",
                  "(albums:string=1;2{dynamic_source=albums,lookup_column=id},player{role=main}())"},
        BuildCase{"nested objects",
                  "<r><object name='player'><integer name='position'/>"
                  "<object name='track'><string name='artist' value='Anna'/></object></object></r>",
                  "(player(position:integer=0,track(artist:string=Anna)))"},
        BuildCase{"a list with a template: rows named after it, with its nodes and values",
                  "<r><list name='queue'><template name='track'><string name='title' value='?'/>"
                  "<real name='duration'/><object name='album'><string name='name' role='x'/></object></template>"
                  "<row><real name='duration' value='1.5'/><string name='title' value='A'/></row>"
                  "<row><object name='album'><string name='name' value='N' role='y'/></object></row></list></r>",
                  "(queue[template track(title:string=?,duration:real=0,album(name:string={role=x}));"
                  "track(title:string=A,duration:real=1.5,album(name:string={role=x})),"
                  "track(title:string=?,duration:real=0,album(name:string=N{role=y}))])"},
        BuildCase{"a list inside a template",
                  "<r><list name='q'><template><list name='tags'><template name='tag'><string name='t'/></template>"
                  "</list></template><row><list name='tags'><row><string name='t' value='x'/></row></list></row>"
                  "</list></r>",
                  "(q[template row(tags[template tag(t:string=);]);row(tags[template tag(t:string=);tag(t:string=x)])])"},
        BuildCase{"a list without template, and an empty list",
                  "<r><list name='tags' kind='loose'><row><string name='t' value='x'/></row></list>"
                  "<list name='empty'/></r>",
                  "(tags{kind=loose}[row(t:string=x)],empty[])"},
        BuildCase{"the template may follow the rows",
                  "<r><list name='q'><row/><template name='item'/></list></r>", "(q[template item();item()])"},
        BuildCase{"elements of the configuration reader are passed over at the top",
                  "<sources service='player'><tracks uri='content://com.tavelorix.content/tracks' type='list'>"
                  "<field name='title' type='string'/></tracks><preload_url target='tracks.cover' uri='p.png'/>"
                  "<list name='albums' uri='com.tavelorix.content/albums'/><block_size target='tracks' size='9'/>"
                  "<integer name='volume' value='1'/></sources>",
                  "(volume:integer=1)"},
        BuildCase{"blank text and comments are ignored",
                  "<r>\n  <!-- volume -->\n  <integer name='volume' value='1'>  </integer>\n</r>",
                  "(volume:integer=1)"}),
    [](const ::testing::TestParamInfo<BuildCase>& info) { return "Case" + std::to_string(info.index); });

struct RefusalCase {
    const char* what;
    std::string xml;
    std::string message;  // part of the one error logged
};

void PrintTo(const RefusalCase& c, std::ostream* out) { *out << c.what; }

class RuntimeDataBuilderRefusalTest : public ::testing::TestWithParam<RefusalCase> {
protected:
    testkit::LogCapture log;
};

TEST_P(RuntimeDataBuilderRefusalTest, ReturnsNullAndSaysWhy) {
    EXPECT_EQ(buildRuntimeData(GetParam().xml), nullptr);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u) << ::testing::PrintToString(log.lines());
    EXPECT_EQ(entries[0].level, LogLevel::Error);
    EXPECT_EQ(entries[0].category, "tethrix-client");
    EXPECT_THAT(entries[0].message, HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Documents, RuntimeDataBuilderRefusalTest,
    ::testing::Values(
        RefusalCase{"not an integer", "<r>\n<integer name='volume' value='loud'/></r>",
                    "line 2, <integer name=\"volume\">: \"loud\" is not an integer"},
        RefusalCase{"a fraction for an integer", "<r><integer name='v' value='2.5'/></r>", "is not an integer"},
        RefusalCase{"not a real", "<r><real name='g' value='fast'/></r>", "\"fast\" is not a real"},
        RefusalCase{"not a boolean", "<r><boolean name='m' value='yes'/></r>", "\"yes\" is not a boolean"},
        RefusalCase{"no name", "<r><integer value='1'/></r>", "a node needs a name"},
        RefusalCase{"an empty name", "<r><string name=''/></r>", "the name \"\" is empty or holds a '.'"},
        RefusalCase{"a name no path can reach", "<r><object name='a.b'/></r>", "holds a '.'"},
        RefusalCase{"two nodes of one name", "<r><integer name='a'/><string name='a'/></r>",
                    "a second node called \"a\""},
        RefusalCase{"two of one name inside an object", "<r><object name='o'><real name='x'/><real name='x'/></object></r>",
                    "a second node called \"x\""},
        RefusalCase{"an element inside a value", "<r><string name='a'><integer name='b'/></string></r>",
                    "a value has no elements inside"},
        RefusalCase{"the value written as text", "<r><string name='a'>Blue</string></r>",
                    "give it in the attribute value"},
        RefusalCase{"a misspelt type inside an object", "<r><object name='o'><integr name='x'/></object></r>",
                    "line 1, <integr name=\"x\">: not a node"},
        RefusalCase{"a foreign element in a list", "<r><list name='l'><item/></list></r>",
                    "a list holds one template and rows"},
        RefusalCase{"two templates", "<r><list name='l'><template/><template/></list></r>", "one template at most"},
        RefusalCase{"a template name no path can reach", "<r><list name='l'><template name='a.b'/></list></r>",
                    "holds a '.'"},
        RefusalCase{"a named row", "<r><list name='l'><row name='x'/></list></r>",
                    "a row takes its name from the list's template"},
        RefusalCase{"a row node the template lacks",
                    "<r><list name='l'><template><object name='o'/></template>"
                    "<row><object name='o'><integer name='n'/></object></row></list></r>",
                    "<row>: the template has no node \"o.n\""},
        RefusalCase{"a row node of another type than the template's",
                    "<r><list name='l'><template><real name='d'/></template><row><string name='d'/></row></list></r>",
                    "the template's \"d\" is of another type"},
        RefusalCase{"a fault deep in a row", "<r><list name='l'><row><object name='o'><integer name='n' value='x'/>"
                                             "</object></row></list></r>",
                    "\"x\" is not an integer"}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return "Case" + std::to_string(info.index); });

TEST(RuntimeDataBuilderNullTest, NoElementIsRefused) {
    testkit::LogCapture log;
    EXPECT_EQ(RuntimeDataBuilder::build(nullptr), nullptr);
    EXPECT_EQ(log.messages(LogLevel::Error).size(), 1u);
}

}  // namespace
}  // namespace zarvo
