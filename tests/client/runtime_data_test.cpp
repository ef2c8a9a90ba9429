// Runtime data trees in the client library: their nodes, the XML grammar
// that builds them (each refusal with one message that says where and why),
// and update text applied to them whole or not at all.
#include <zarvo/runtime_data.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/runtime_data_text.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testkit::buildRuntimeData;
using testkit::dumpRuntimeData;

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

    // A handler that drops the node's last owner: the round still ends.
    volume->addModifiedNotificationHandler([&](RuntimeDataObject*) { volume.reset(); });
    volume->addModifiedNotificationHandler([&](RuntimeDataObject*) { seen.push_back(0); });
    volume->setValue(6);
    EXPECT_EQ(volume, nullptr);
    EXPECT_THAT(seen, ElementsAre(4, -5, 6, 0));
}

TEST(RuntimeDataTest, TextIsParsedWholeOrTheValueIsLeft) {
    const struct {
        std::shared_ptr<RuntimeDataObject> node;
        std::string input;
        bool accepted;
        std::string text;
    } cases[] = {{std::make_shared<RuntimeDataObjectInteger>(nullptr, "i", 1), "+12", true, "12"},
                 {std::make_shared<RuntimeDataObjectInteger>(nullptr, "i", 1), "12x", false, "1"},
                 {std::make_shared<RuntimeDataObjectInteger>(nullptr, "i", 1), "99999999999", false, "1"},
                 {std::make_shared<RuntimeDataObjectReal>(nullptr, "r", 1.0), "0.1", true, "0.1"},
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

TEST(RuntimeDataBuilderTest, BuildsTheDescribedTree) {
    const struct {
        const char* what;
        std::string xml;
        std::string tree;
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
        {"other attributes become properties",
         "<r><string name='albums' value='1;2' dynamic_source='albums' lookup_column='id'/>"
         "<object name='player' role='main'/></r>",
         "(albums:string=1;2{dynamic_source=albums,lookup_column=id},player{role=main}())"},
        {"reals that JSON could not carry", "<r><real name='a' value='nan'/><real name='b' value='-inf'/></r>",
         "(a:real=nan,b:real=-inf)"},
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
        {"the template may follow the rows", "<r><list name='q'><row/><template name='item'/></list></r>",
         "(q[template item();item()])"},
        {"elements of the configuration reader are passed over at the top",
         "<sources service='player'><tracks uri='content://com.tavelorix.content/tracks' type='list'>"
         "<field name='title' type='string'/></tracks><preload_url target='tracks.cover' uri='p.png'/>"
         "<list name='albums' uri='com.tavelorix.content/albums'/><block_size target='tracks' size='9'/>"
         "<integer name='volume' value='1'/></sources>",
         "(volume:integer=1)"},
        {"blank text and comments are ignored",
         "<r>\n  <!-- volume -->\n  <integer name='volume' value='1'>  </integer>\n</r>", "(volume:integer=1)"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        testkit::LogCapture log;
        const auto root = buildRuntimeData(c.xml);
        ASSERT_NE(root, nullptr) << ::testing::PrintToString(log.lines());
        EXPECT_EQ(dumpRuntimeData(*root), c.tree);
        EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(log.lines());
    }
}

TEST(RuntimeDataBuilderTest, RefusesWithNullAndOneErrorThatSaysWhy) {
    const struct {
        const char* what;
        std::string xml;
        std::string message;
    } cases[] = {
        {"no element", "", "no element"},
        {"not an integer", "<r>\n<integer name='volume' value='loud'/></r>",
         "line 2, <integer name=\"volume\">: \"loud\" is not an integer"},
        {"not a real", "<r><real name='g' value='fast'/></r>", "\"fast\" is not a real"},
        {"not a boolean", "<r><boolean name='m' value='yes'/></r>", "\"yes\" is not a boolean"},
        {"no name", "<r><integer value='1'/></r>", "a node needs a name"},
        {"an empty name", "<r><string name=''/></r>", "the name \"\" is empty or holds a '.'"},
        {"two nodes of one name", "<r><integer name='a'/><string name='a'/></r>", "a second node called \"a\""},
        {"an element inside a value", "<r><string name='a'><integer name='b'/></string></r>",
         "a value has no elements inside"},
        {"the value written as text", "<r><string name='a'>Blue</string></r>", "give it in the attribute value"},
        {"a misspelt type inside an object", "<r><object name='o'><integr name='x'/></object></r>",
         "line 1, <integr name=\"x\">: not a node"},
        {"a foreign element in a list", "<r><list name='l'><item/></list></r>", "a list holds one template and rows"},
        {"two templates", "<r><list name='l'><template/><template/></list></r>", "one template at most"},
        {"a named row", "<r><list name='l'><row name='x'/></list></r>",
         "a row takes its name from the list's template"},
        {"a row node the template lacks",
         "<r><list name='l'><template><object name='o'/></template>"
         "<row><object name='o'><integer name='n'/></object></row></list></r>",
         "<row>: the template has no node \"o.n\""},
        {"a row node of another type than the template's",
         "<r><list name='l'><template><real name='d'/></template><row><string name='d'/></row></list></r>",
         "the template's \"d\" is of another type"}};
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

const char* const playerXml = R"(
<player service="player">
  <integer name="volume" value="3"/>
  <real name="gain" value="0.5"/>
  <boolean name="muted" value="false"/>
  <string name="title" value="Blue Hour"/>
  <object name="player">
    <integer name="position" value="0"/>
    <object name="track"><string name="artist" value="Anna"/></object>
    <list name="history"/>
  </object>
  <list name="queue">
    <template name="track"><string name="title"/><real name="duration"/></template>
    <row><string name="title" value="A"/><real name="duration" value="1"/></row>
    <row><string name="title" value="B"/><real name="duration" value="2"/></row>
  </list>
  <list name="loose"/>
</player>)";

/// The tree of playerXml with every node watched.
struct PlayerTree {
    PlayerTree() : tree(buildRuntimeData(playerXml)) { watch(tree); }
    PlayerTree(const PlayerTree&) = delete;
    PlayerTree& operator=(const PlayerTree&) = delete;

    /// Records the name of every node whose handlers fire, objects and
    /// lists included.
    void watch(const std::shared_ptr<RuntimeDataObject>& node) {
        node->addModifiedNotificationHandler(
            [this](RuntimeDataObject* changed) { fired.push_back(changed->getNameOverride()); });
        for (auto child = node->beginChildren(); child != node->endChildren(); ++child) {
            watch(*child);
        }
    }

    void apply(const std::string& update) { RuntimeDataInternalizer::internalize(update, tree); }

    std::shared_ptr<RuntimeDataObject> at(const std::string& path) const {
        std::shared_ptr<RuntimeDataObject> node = tree;
        std::size_t begin = 0;
        while (node && begin <= path.size()) {
            const std::size_t end = std::min(path.find('.', begin), path.size());
            node = node->findChild(path.substr(begin, end - begin));
            begin = end + 1;
        }
        return node;
    }

    std::string rowsOf(const std::string& path) const { return dumpRuntimeData(*at(path)); }

    testkit::LogCapture log;
    std::shared_ptr<RuntimeDataObject> tree;
    std::vector<std::string> fired;
};

class RuntimeDataInternalizerTest : public ::testing::Test, public PlayerTree {};

TEST(RuntimeDataUpdateTest, ValueUpdatesChangeValuesAndFireOncePerChangeInTreeOrder) {
    const struct {
        const char* what;
        std::string update;
        std::vector<std::string> fired;
        std::map<std::string, std::string> values;  // path -> text afterwards
    } cases[] = {
        {"one integer", R"({"values":{"volume":4}})", {"volume"}, {{"volume", "4"}}},
        {"a value as it is", R"({"values":{"volume":3,"title":"Blue Hour"}})", {}, {{"volume", "3"}}},
        {"each type, nested, in tree order",
         R"({"values":{"player":{"track":{"artist":"Ben"},"position":12},"muted":true,"gain":0.75,)"
         R"("title":"Cold Light"}})",
         {"gain", "muted", "title", "position", "artist"},
         {{"gain", "0.75"},
          {"muted", "1"},
          {"title", "Cold Light"},
          {"player.position", "12"},
          {"player.track.artist", "Ben"}}},
        {"a real given as a whole number", R"({"values":{"gain":2}})", {"gain"}, {{"gain", "2"}}},
        {"a real given as text", R"({"values":{"gain":"-inf"}})", {"gain"}, {{"gain", "-inf"}}},
        {"the extremes of an integer",
         R"({"values":{"volume":-2147483648,"player":{"position":2147483647}}})",
         {"volume", "position"},
         {{"volume", "-2147483648"}, {"player.position", "2147483647"}}},
        {"nothing to do", R"({})", {}, {}},
        {"a key given twice: the last counts", R"({"values":{"volume":8,"volume":9}})", {"volume"}, {{"volume", "9"}}},
        {"NaN is a change each time", R"({"values":{"gain":"nan"}})", {"gain", "gain"}, {{"gain", "nan"}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PlayerTree player;  // each case starts from the same tree
        player.apply(c.update);
        if (c.fired.size() == 2)
            player.apply(c.update);
        EXPECT_THAT(player.log.lines(), IsEmpty());
        EXPECT_THAT(player.fired, ElementsAreArray(c.fired));
        for (const auto& expected : c.values) {
            EXPECT_EQ(player.at(expected.first)->getValueAsString(), expected.second) << expected.first;
        }
    }
}

/// The dump of the queue with rows "title:duration", e.g. "A:1,B:2".
std::string queueOf(const std::string& rows) {
    std::string text = "queue[template track(title:string=,duration:real=0);";
    for (std::size_t at = 0; at < rows.size();) {
        const std::size_t colon = rows.find(':', at);
        const std::size_t end = std::min(rows.find(',', at), rows.size());
        text += std::string(at ? "," : "") + "track(title:string=" + rows.substr(at, colon - at) +
                ",duration:real=" + rows.substr(colon + 1, end - colon - 1) + ")";
        at = end + 1;
    }
    return text + "]";
}

TEST(RuntimeDataUpdateTest, RowOperationsChangeRowsAndFireTheListOnce) {
    const struct {
        const char* what;
        std::string update;
        std::string queue;
        int listEvents;
    } cases[] = {
        {"insert at the end, the template filling in", R"({"rows":[{"list":"queue","insert":2,"row":{"title":"C"}}]})",
         "A:1,B:2,C:0", 1},
        {"several operations, each on the rows the one before left",
         R"({"rows":[{"list":"queue","remove":0},{"list":"queue","insert":1,"row":{"title":"C"}},)"
         R"({"list":"queue","replace":0,"row":{"title":"D"}}]})",
         "D:0,C:0", 1},
        {"all rows at once", R"({"values":{"queue":[{"title":"X"}]}})", "X:0", 1},
        {"rows operated on after the values, whatever the key order",
         R"({"rows":[{"list":"queue","remove":1}],"values":{"queue":[{"title":"X"},{"title":"Y"}]}})", "X:0", 1},
        {"a row replaced by an equal one is no change",
         R"({"rows":[{"list":"queue","replace":0,"row":{"title":"A","duration":1}}]})", "A:1,B:2", 0},
        {"the same rows again are no change",
         R"({"values":{"queue":[{"title":"A","duration":1},{"title":"B","duration":2}]}})", "A:1,B:2", 0},
        {"an insertion undone in the same update is no change",
         R"({"rows":[{"list":"queue","insert":0,"row":{}},{"list":"queue","remove":0}]})", "A:1,B:2", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PlayerTree player;  // each case starts from the same tree
        player.apply(c.update);
        EXPECT_THAT(player.log.lines(), IsEmpty());
        EXPECT_EQ(player.rowsOf("queue"), queueOf(c.queue));
        EXPECT_EQ(player.fired, std::vector<std::string>(c.listEvents, "queue"));
    }
}

TEST_F(RuntimeDataInternalizerTest, UnchangedRowsKeepTheirObjectsAndBindings) {
    auto queue = at("queue")->castTo<RuntimeDataObjectList>();
    const auto first = queue->getItem(0);
    const auto second = queue->getItem(1);

    apply(R"({"values":{"queue":[{"title":"A","duration":1},{"title":"B2","duration":2},{"title":"C"}]}})");

    ASSERT_EQ(queue->itemCount(), 3u);
    EXPECT_EQ(queue->getItem(0), first);
    EXPECT_NE(queue->getItem(1), second);
    EXPECT_EQ(queue->getItem(1)->getNameOverride(), "track");
}

TEST_F(RuntimeDataInternalizerTest, RowsOfAListWithoutTemplateTakeTheShapeOfTheirJson) {
    apply(R"({"rows":[{"list":"loose","insert":0,"row":{"n":1,"x":1.5,"b":true,"s":"t","o":{"k":2},)"
          R"("l":[{"m":-1}]}},{"list":"player.history","insert":0,"row":{}}]})");

    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(rowsOf("loose"),
              "loose[row(n:integer=1,x:real=1.5,b:boolean=1,s:string=t,o(k:integer=2),l[row(m:integer=-1)])]");
    EXPECT_EQ(rowsOf("player.history"), "history[row()]");
    EXPECT_THAT(fired, ElementsAre("loose", "history"));
}

TEST_F(RuntimeDataInternalizerTest, ValuesFireBeforeLists) {
    apply(R"({"rows":[{"list":"queue","remove":0}],"values":{"volume":1}})");
    EXPECT_THAT(fired, ElementsAre("volume", "queue"));
}

// Most updates below are right in their first part: a refused update must
// change nothing, not even what came before the fault.
TEST_F(RuntimeDataInternalizerTest, RefusedUpdatesLeaveTheTreeAsItWasAndSayWhy) {
    const std::string before = dumpRuntimeData(*tree);
    const struct {
        const char* what;
        std::string update;
        std::string message;
    } cases[] = {
        {"cut short", R"({"values":{"volume":4)", "not JSON (incomplete JSON"},
        {"not an object", R"([{"values":{}}])", "at the top: an update is a JSON object"},
        {"an unknown key", R"({"values":{"volume":4},"value":{}})", "unknown key \"value\""},
        {"an unknown node", R"({"values":{"volume":4,"player":{"positon":1}}})",
         "at \"player\": no node called \"positon\""},
        {"text for an integer", R"({"values":{"volume":"4"}})", "at \"volume\": \"4\" is not an integer"},
        {"a fraction for an integer", R"({"values":{"volume":4.5}})", "at \"volume\": 4.5 is not an integer"},
        {"an integer out of range", R"({"values":{"volume":4,"player":{"position":2147483648}}})",
         "at \"player.position\": 2147483648 is beyond the range of an integer"},
        {"a number for a boolean", R"({"values":{"muted":1}})", "1 is not a boolean"},
        {"a value for an object", R"({"values":{"player":5}})", "an object takes a JSON object"},
        {"an object for a list", R"({"values":{"queue":{}}})", "a list takes a JSON array"},
        {"a row that is no object", R"({"values":{"queue":[{"title":"X"},1]}})",
         "at \"queue[1]\": a row is a JSON object"},
        {"a row with a field its template lacks", R"({"rows":[{"list":"queue","insert":0,"row":{"titel":"X"}}]})",
         "at \"rows[0].row\": no node called \"titel\""},
        {"a row with a value of the wrong type", R"({"rows":[{"list":"queue","insert":0,"row":{"duration":"long"}}]})",
         "at \"rows[0].row.duration\": \"long\" is not a real"},
        {"an index past the end", R"({"values":{"volume":9},"rows":[{"list":"queue","remove":2}]})",
         "row 2 is outside the list \"queue\" of 2 rows"},
        {"an insertion past the end", R"({"rows":[{"list":"queue","insert":3,"row":{}}]})",
         "an insertion takes 0 to 2"},
        {"a negative index", R"({"rows":[{"list":"queue","remove":-1}]})", "-1 is not a row index"},
        {"an unknown list", R"({"rows":[{"list":"playlist","remove":0}]})",
         "no list \"playlist\": no node called \"playlist\""},
        {"a value for a list", R"({"rows":[{"list":"volume","remove":0}]})", "\"volume\" is not a list"},
        {"a path through a value", R"({"rows":[{"list":"volume.x","remove":0}]})", "\"volume\" is not an object"},
        {"no list named", R"({"rows":[{"remove":0}]})", "names its list in \"list\""},
        {"two operations in one", R"({"rows":[{"list":"queue","insert":0,"remove":0,"row":{}}]})",
         "one of insert, replace and remove"},
        {"a removal with a row", R"({"rows":[{"list":"queue","remove":0,"row":{}}]})", "a removal takes no row"},
        {"an insertion without a row", R"({"rows":[{"list":"queue","insert":0}]})", "takes a row"},
        {"an unknown key in an operation", R"({"rows":[{"list":"queue","remove":0,"at":1}]})", "unknown key \"at\""},
        {"operations that are no array", R"({"rows":{"list":"queue","remove":0}})",
         "at \"rows\": row operations are a JSON array"},
        {"null in a row of no template", R"({"rows":[{"list":"loose","insert":0,"row":{"a":null}}]})",
         "at \"rows[0].row.a\": null is no value"},
        {"a name no path can reach", R"({"rows":[{"list":"loose","insert":0,"row":{"a.b":1}}]})", "holds no '.'"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        log.clear();
        apply(c.update);
        EXPECT_EQ(dumpRuntimeData(*tree), before);
        EXPECT_THAT(fired, IsEmpty());
        const auto entries = log.entries();
        ASSERT_EQ(entries.size(), 1u) << ::testing::PrintToString(log.lines());
        EXPECT_EQ(entries[0].level, LogLevel::Error);
        EXPECT_EQ(entries[0].category, "tethrix-client");
        EXPECT_THAT(entries[0].message, HasSubstr("Runtime data update refused"));
        EXPECT_THAT(entries[0].message, HasSubstr(c.message));
    }
    log.clear();
    RuntimeDataInternalizer::internalize(R"({"values":{}})", nullptr);
    EXPECT_EQ(log.messages(LogLevel::Error).size(), 1u);
}

}  // namespace
}  // namespace zarvo
