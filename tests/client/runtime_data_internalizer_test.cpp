// Update text applied to a runtime data tree: values, rows, which handlers
// fire, and updates refused whole, leaving the tree as it was.
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/runtime_data_text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using testkit::buildRuntimeData;
using testkit::dumpRuntimeData;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

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
                  {{"gain", "0.75"}, {"muted", "1"}, {"title", "Cold Light"}, {"player.position", "12"},
                   {"player.track.artist", "Ben"}}},
        {"a real given as a whole number", R"({"values":{"gain":2}})", {"gain"}, {{"gain", "2"}}},
        {"a real given as text", R"({"values":{"gain":"-inf"}})", {"gain"}, {{"gain", "-inf"}}},
        {"the extremes of an integer", R"({"values":{"volume":-2147483648,"player":{"position":2147483647}}})",
                  {"volume", "position"}, {{"volume", "-2147483648"}, {"player.position", "2147483647"}}},
        {"an empty string", R"({"values":{"title":""}})", {"title"}, {{"title", ""}}},
        {"nothing to do", R"({})", {}, {}},
        {"no values", R"({"values":{},"rows":[]})", {}, {}},
        {"a key given twice: the last counts", R"({"values":{"volume":8,"volume":9}})", {"volume"},
                  {{"volume", "9"}}},
        {"NaN is a change each time", R"({"values":{"gain":"nan"}})", {"gain", "gain"}, {{"gain", "nan"}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PlayerTree player;  // each case starts from the same tree
        player.apply(c.update);
        if (c.fired.size() == 2) player.apply(c.update);
        EXPECT_THAT(player.log.lines(), IsEmpty());
        EXPECT_THAT(player.fired, ElementsAreArray(c.fired));
        for (const auto& expected : c.values) {
            EXPECT_EQ(player.at(expected.first)->getValueAsString(), expected.second) << expected.first;
        }
    }
}

const std::string queueTemplate = "queue[template track(title:string=,duration:real=0);";

TEST(RuntimeDataUpdateTest, RowOperationsChangeRowsAndFireTheListOnce) {
    const struct {
        const char* what;
        std::string update;
        std::string queue;  // dump of the list afterwards
        int listEvents;
    } cases[] = {
        {"insert first", R"({"rows":[{"list":"queue","insert":0,"row":{"title":"Z","duration":9}}]})",
                queueTemplate + "track(title:string=Z,duration:real=9),track(title:string=A,duration:real=1),"
                                "track(title:string=B,duration:real=2)]",
                1},
        {"insert at the end, the template filling in",
                R"({"rows":[{"list":"queue","insert":2,"row":{"title":"C"}}]})",
                queueTemplate + "track(title:string=A,duration:real=1),track(title:string=B,duration:real=2),"
                                "track(title:string=C,duration:real=0)]",
                1},
        {"replace", R"({"rows":[{"list":"queue","replace":1,"row":{"title":"B","duration":2.5}}]})",
                queueTemplate + "track(title:string=A,duration:real=1),track(title:string=B,duration:real=2.5)]", 1},
        {"remove", R"({"rows":[{"remove":0,"list":"queue"}]})",
                queueTemplate + "track(title:string=B,duration:real=2)]", 1},
        {"several operations, each on the rows the one before left",
                R"({"rows":[{"list":"queue","remove":0},{"list":"queue","insert":1,"row":{"title":"C"}},)"
                R"({"list":"queue","replace":0,"row":{"title":"D"}}]})",
                queueTemplate + "track(title:string=D,duration:real=0),track(title:string=C,duration:real=0)]", 1},
        {"all rows at once", R"({"values":{"queue":[{"title":"X"}]}})",
                queueTemplate + "track(title:string=X,duration:real=0)]", 1},
        {"no rows at all", R"({"values":{"queue":[]}})", queueTemplate + "]", 1},
        {"rows operated on after the values, whatever the key order",
                R"({"rows":[{"list":"queue","remove":1}],"values":{"queue":[{"title":"X"},{"title":"Y"}]}})",
                queueTemplate + "track(title:string=X,duration:real=0)]", 1},
        {"a row replaced by an equal one is no change",
                R"({"rows":[{"list":"queue","replace":0,"row":{"title":"A","duration":1}}]})",
                queueTemplate + "track(title:string=A,duration:real=1),track(title:string=B,duration:real=2)]", 0},
        {"the same rows again are no change",
                R"({"values":{"queue":[{"title":"A","duration":1},{"title":"B","duration":2}]}})",
                queueTemplate + "track(title:string=A,duration:real=1),track(title:string=B,duration:real=2)]", 0},
        {"an insertion undone in the same update is no change",
                R"({"rows":[{"list":"queue","insert":0,"row":{}},{"list":"queue","remove":0}]})",
                queueTemplate + "track(title:string=A,duration:real=1),track(title:string=B,duration:real=2)]", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PlayerTree player;  // each case starts from the same tree
        player.apply(c.update);
        EXPECT_THAT(player.log.lines(), IsEmpty());
        EXPECT_EQ(player.rowsOf("queue"), c.queue);
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
        std::string message;  // part of the one error logged
    } cases[] = {
        {"empty text", "", "not JSON"},
        {"cut short", R"({"values":{"volume":4)", "not JSON (incomplete JSON"},
        {"not an object", R"([{"values":{}}])", "at the top: an update is a JSON object"},
        {"an unknown key", R"({"values":{"volume":4},"value":{}})", "unknown key \"value\""},
        {"an unknown node", R"({"values":{"volume":4,"player":{"positon":1}}})",
                    "at \"player\": no node called \"positon\""},
        {"text for an integer", R"({"values":{"volume":"4"}})", "at \"volume\": \"4\" is not an integer"},
        {"a fraction for an integer", R"({"values":{"volume":4.5}})", "at \"volume\": 4.5 is not an integer"},
        {"an integer out of range", R"({"values":{"volume":4,"player":{"position":2147483648}}})",
                    "at \"player.position\": 2147483648 is beyond the range of an integer"},
        {"a word for a real", R"({"values":{"volume":4,"gain":"loud"}})", "\"loud\" is not a real"},
        {"a number for a boolean", R"({"values":{"muted":1}})", "1 is not a boolean"},
        {"a number for a string", R"({"values":{"title":5}})", "5 is not a string"},
        {"a value for an object", R"({"values":{"player":5}})", "an object takes a JSON object"},
        {"an object for a list", R"({"values":{"queue":{}}})", "a list takes a JSON array"},
        {"a row that is no object", R"({"values":{"queue":[{"title":"X"},1]}})",
                    "at \"queue[1]\": a row is a JSON object"},
        {"a row with a field its template lacks",
                    R"({"rows":[{"list":"queue","insert":0,"row":{"titel":"X"}}]})",
                    "at \"rows[0].row\": no node called \"titel\""},
        {"a row with a value of the wrong type",
                    R"({"rows":[{"list":"queue","insert":0,"row":{"duration":"long"}}]})",
                    "at \"rows[0].row.duration\": \"long\" is not a real"},
        {"an index past the end", R"({"values":{"volume":9},"rows":[{"list":"queue","remove":2}]})",
                    "row 2 is outside the list \"queue\" of 2 rows"},
        {"an insertion past the end", R"({"rows":[{"list":"queue","insert":3,"row":{}}]})",
                    "an insertion takes 0 to 2"},
        {"an index that the update before made bad",
                    R"({"rows":[{"list":"queue","remove":0},{"list":"queue","replace":1,"row":{}}]})",
                    "at \"rows[1]\": row 1 is outside the list \"queue\" of 1 rows"},
        {"a negative index", R"({"rows":[{"list":"queue","remove":-1}]})", "-1 is not a row index"},
        {"an unknown list", R"({"rows":[{"list":"playlist","remove":0}]})",
                    "no list \"playlist\": no node called \"playlist\""},
        {"a value for a list", R"({"rows":[{"list":"volume","remove":0}]})", "\"volume\" is not a list"},
        {"a path through a value", R"({"rows":[{"list":"volume.x","remove":0}]})",
                    "\"volume\" is not an object"},
        {"no list named", R"({"rows":[{"remove":0}]})", "names its list in \"list\""},
        {"two operations in one", R"({"rows":[{"list":"queue","insert":0,"remove":0,"row":{}}]})",
                    "one of insert, replace and remove"},
        {"no operation", R"({"rows":[{"list":"queue","row":{}}]})", "one of insert, replace and remove"},
        {"a removal with a row", R"({"rows":[{"list":"queue","remove":0,"row":{}}]})",
                    "a removal takes no row"},
        {"an insertion without a row", R"({"rows":[{"list":"queue","insert":0}]})", "takes a row"},
        {"an unknown key in an operation", R"({"rows":[{"list":"queue","remove":0,"at":1}]})",
                    "unknown key \"at\""},
        {"operations that are no array", R"({"rows":{"list":"queue","remove":0}})",
                    "at \"rows\": row operations are a JSON array"},
        {"null in a row of no template", R"({"rows":[{"list":"loose","insert":0,"row":{"a":null}}]})",
                    "at \"rows[0].row.a\": null is no value"},
        {"a name no path can reach", R"({"rows":[{"list":"loose","insert":0,"row":{"a.b":1}}]})",
                    "holds no '.'"}};
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
