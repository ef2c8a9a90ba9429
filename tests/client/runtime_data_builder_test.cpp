// The XML grammar of runtime data trees: documents to trees, and the
// documents refused, each with one message that says where and why.
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/runtime_data_text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace zarvo {
namespace {

using testkit::buildRuntimeData;
using testkit::dumpRuntimeData;
using ::testing::HasSubstr;

TEST(RuntimeDataBuilderTest, BuildsTheDescribedTree) {
    const struct {
        const char* what;
        std::string xml;
        std::string tree;  // dumpRuntimeData of the result
    } cases[] = {
        {"an element without content", "<player service='player'/>", "()"},
        {"values of each type, given and defaulted",
                  "<r><integer name='volume' value='-3'/><real name='gain' value='0.25'/>"
                  "<boolean name='muted' value='true'/><string name='title' value='Blue Hour'/>"
                  "<integer name='a'/><real name='b'/><boolean name='c'/><string name='d'/></r>",
                  "(volume:integer=-3,gain:real=0.25,muted:boolean=1,title:string=Blue Hour,"
                  "a:integer=0,b:real=0,c:boolean=0,d:string=)"},
        {"the short type names of content fields",
                  "<r><int name='a' value='+7'/><float name='b' value='1e3'/><bool name='c' value='1'/></r>",
                  "(a:integer=7,b:real=1000,c:boolean=1)"},
        {"reals that JSON could not carry", "<r><real name='a' value='nan'/><real name='b' value='-inf'/></r>",
                  "(a:real=nan,b:real=-inf)"},
        {"other attributes become properties",
                  "<r><string name='albums' value='1;2' dynamic_source='albums' lookup_column='id'/>"
                  "<object name='player' role='main'/></r>",
                  "(albums:string=1;2{dynamic_source=albums,lookup_column=id},player{role=main}())"},
        {"nested objects",
                  "<r><object name='player'><integer name='position'/>"
                  "<object name='track'><string name='artist' value='Anna'/></object></object></r>",
                  "(player(position:integer=0,track(artist:string=Anna)))"},
        {"a list with a template: rows named after it, with its nodes and values",
                  "<r><list name='queue'><template name='track'><string name='title' value='?'/>"
                  "<real name='duration'/><object name='album'><string name='name' role='x'/></object></template>"
                  "<row><real name='duration' value='1.5'/><string name='title' value='A'/></row>"
                  "<row><object name='album'><string name='name' value='N' role='y'/></object></row></list></r>",
                  "(queue[template track(title:string=?,duration:real=0,album(name:string={role=x}));"
                  "track(title:string=A,duration:real=1.5,album(name:string={role=x})),"
                  "track(title:string=?,duration:real=0,album(name:string=N{role=y}))])"},
        {"a list inside a template",
                  "<r><list name='q'><template><list name='tags'><template name='tag'><string name='t'/></template>"
                  "</list></template><row><list name='tags'><row><string name='t' value='x'/></row></list></row>"
                  "</list></r>",
                  "(q[template row(tags[template tag(t:string=);]);row(tags[template tag(t:string=);tag(t:string=x)])])"},
        {"a list without template, and an empty list",
                  "<r><list name='tags' kind='loose'><row><string name='t' value='x'/></row></list>"
                  "<list name='empty'/></r>",
                  "(tags{kind=loose}[row(t:string=x)],empty[])"},
        {"the template may follow the rows",
                  "<r><list name='q'><row/><template name='item'/></list></r>", "(q[template item();item()])"},
        {"elements of the configuration reader are passed over at the top",
                  "<sources service='player'><tracks uri='content://com.tavelorix.content/tracks' type='list'>"
                  "<field name='title' type='string'/></tracks><preload_url target='tracks.cover' uri='p.png'/>"
                  "<list name='albums' uri='com.tavelorix.content/albums'/><block_size target='tracks' size='9'/>"
                  "<integer name='volume' value='1'/></sources>",
                  "(volume:integer=1)"},
        {"blank text and comments are ignored",
                  "<r>\n  <!-- volume -->\n  <integer name='volume' value='1'>  </integer>\n</r>",
                  "(volume:integer=1)"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        testkit::LogCapture log;
        const auto root = buildRuntimeData(c.xml);
        ASSERT_NE(root, nullptr) << ::testing::PrintToString(log.lines());
        EXPECT_EQ(root->getType(), RuntimeDataObject::TypeObject);
        EXPECT_EQ(dumpRuntimeData(*root), c.tree);
        EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(log.lines());
    }
}

TEST(RuntimeDataBuilderTest, RefusesWithNullAndOneErrorThatSaysWhy) {
    const struct {
        const char* what;
        std::string xml;
        std::string message;  // part of the one error logged
    } cases[] = {
        {"no element", "", "no element"},
        {"not an integer", "<r>\n<integer name='volume' value='loud'/></r>",
                    "line 2, <integer name=\"volume\">: \"loud\" is not an integer"},
        {"a fraction for an integer", "<r><integer name='v' value='2.5'/></r>", "is not an integer"},
        {"not a real", "<r><real name='g' value='fast'/></r>", "\"fast\" is not a real"},
        {"not a boolean", "<r><boolean name='m' value='yes'/></r>", "\"yes\" is not a boolean"},
        {"no name", "<r><integer value='1'/></r>", "a node needs a name"},
        {"an empty name", "<r><string name=''/></r>", "the name \"\" is empty or holds a '.'"},
        {"a name no path can reach", "<r><object name='a.b'/></r>", "holds a '.'"},
        {"two nodes of one name", "<r><integer name='a'/><string name='a'/></r>",
                    "a second node called \"a\""},
        {"two of one name inside an object", "<r><object name='o'><real name='x'/><real name='x'/></object></r>",
                    "a second node called \"x\""},
        {"an element inside a value", "<r><string name='a'><integer name='b'/></string></r>",
                    "a value has no elements inside"},
        {"the value written as text", "<r><string name='a'>Blue</string></r>",
                    "give it in the attribute value"},
        {"a misspelt type inside an object", "<r><object name='o'><integr name='x'/></object></r>",
                    "line 1, <integr name=\"x\">: not a node"},
        {"a foreign element in a list", "<r><list name='l'><item/></list></r>",
                    "a list holds one template and rows"},
        {"two templates", "<r><list name='l'><template/><template/></list></r>", "one template at most"},
        {"a template name no path can reach", "<r><list name='l'><template name='a.b'/></list></r>",
                    "holds a '.'"},
        {"a named row", "<r><list name='l'><row name='x'/></list></r>",
                    "a row takes its name from the list's template"},
        {"a row node the template lacks",
                    "<r><list name='l'><template><object name='o'/></template>"
                    "<row><object name='o'><integer name='n'/></object></row></list></r>",
                    "<row>: the template has no node \"o.n\""},
        {"a row node of another type than the template's",
                    "<r><list name='l'><template><real name='d'/></template><row><string name='d'/></row></list></r>",
                    "the template's \"d\" is of another type"},
        {"a fault deep in a row", "<r><list name='l'><row><object name='o'><integer name='n' value='x'/>"
                                             "</object></row></list></r>",
                    "\"x\" is not an integer"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        testkit::LogCapture log;
        EXPECT_EQ(c.xml.empty() ? RuntimeDataBuilder::build(nullptr) : buildRuntimeData(c.xml), nullptr);
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u) << ::testing::PrintToString(log.lines());
        EXPECT_EQ(entries[0].level, LogLevel::Error);
        EXPECT_EQ(entries[0].category, "tethrix-client");
        EXPECT_THAT(entries[0].message, HasSubstr(c.message));
    }
}

}  // namespace
}  // namespace zarvo
