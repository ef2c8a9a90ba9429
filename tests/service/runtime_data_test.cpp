// Runtime data in the service: trees read from files, the state a new
// subscriber gets, updates passed on to every subscriber, and updates that
// are refused whole; and the simulated player, whose every update fits the
// tree of examples/player.xml.
#include <zarvo/testkit/thrown.h>
#include "player_simulator.h"
#include "runtime_data_hub.h"
#include "runtime_file.h"

#include <tethrix/protocol/runtime_state.h>
#include <tethrix/protocol/runtime_update.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace tethrix::service {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const char* const playerXml = R"(<sources service="player">
  <integer name="volume" value="3"/>
  <real name="gain" value="-1.5"/>
  <boolean name="muted"/>
  <object name="track"><string name="title" value="Blue Hour"/><real name="duration" value="215.5"/></object>
  <list name="queue">
    <template name="entry"><string name="title"/><real name="duration"/></template>
    <row><string name="title" value="Cold Light"/><real name="duration" value="187"/></row>
  </list>
  <string name="albums" value="1;2" dynamic_source="albums" lookup_column="id"/>
  <tracks uri="content://com.tavelorix.content/tracks"><field name="title" type="string"/></tracks>
</sources>)";

std::vector<NamedRuntimeTree> readTrees(const std::string& xml) {
    tinyxml2::XMLDocument document;
    EXPECT_EQ(document.Parse(xml.c_str()), tinyxml2::XML_SUCCESS) << xml;
    return readRuntimeTrees(document, "test.xml");
}

RuntimeNode::Ptr readTree(const std::string& xml) {
    auto trees = readTrees(xml);
    EXPECT_EQ(trees.size(), 1u);
    return trees.empty() ? nullptr : trees.front().root;
}

std::string stateOf(const RuntimeNode& root) {
    return protocol::writeRuntimeState<RuntimeTreeModel>(root);
}

using Delivery = std::pair<protocol::RequestId, std::string>;

class RecordingSubscriber : public RuntimeDataSubscriber {
public:
    void deliverUpdate(protocol::RequestId id, const std::string& address, const std::string& data) override {
        EXPECT_EQ(address, "");
        deliveries.push_back({id, data});
    }
    std::vector<Delivery> deliveries;
};

TEST(RuntimeFileTest, TreesAreDeclaredAsInAConfiguration) {
    auto trees = readTrees(R"(<sources service="player">
        <integer name="volume"/>
        <radio uri="servicedata://radio"><string name="station" value="FM 4"/></radio>
        <tracks uri="content://com.tavelorix.content/tracks"/>
      </sources>)");
    ASSERT_EQ(trees.size(), 2u);
    EXPECT_EQ(trees[0].name, "player");
    EXPECT_EQ(stateOf(*trees[0].root), R"({"values":{"volume":0}})");
    EXPECT_EQ(trees[1].name, "radio");
    EXPECT_EQ(stateOf(*trees[1].root), R"({"values":{"station":"FM 4"}})");
}

TEST(RuntimeFileTest, FaultsNameTheFileTheTreeAndThePlace) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"<sources><tracks uri='content://x/tracks'/></sources>",
         "test.xml: no runtime data: give the root a service attribute or a source a uri servicedata://<name>"},
        {"<sources service='player'>\n<integer name='volume' value='loud'/></sources>",
         "test.xml: servicedata://player: line 2, <integer name=\"volume\">: \"loud\" is not an integer"},
        {"<sources service='player'><tracks uri='content://x/tracks'/></sources>",
         "test.xml: servicedata://player describes no nodes"},
        {"<sources><r uri='servicedata://a b'><integer name='v'/></r></sources>",
         "test.xml: \"servicedata://a b\": a name is letters, digits, '_' and '-'"},
    };
    for (const auto& [xml, message] : cases) {
        EXPECT_EQ(zarvo::testkit::thrownMessage<std::runtime_error>([&] { readTrees(xml); }), message);
    }
    EXPECT_THAT(zarvo::testkit::thrownMessage<std::runtime_error>([] { loadRuntimeFile("/nonexistent/player.xml"); }),
                HasSubstr("/nonexistent/player.xml: "));
}

TEST(RuntimeStateTest, AStateAppliedToAFreshTreeMakesItEqual) {
    // Reals without fraction, NaN and infinities, nested lists and rows
    // without a template must all come back as they were.
    const std::string xml = R"(<r service="t">
        <real name="whole" value="187"/><real name="nan" value="nan"/><real name="inf" value="-inf"/>
        <string name="quote" value="say &quot;hi&quot;"/>
        <object name="o"><object name="p"><boolean name="b" value="1"/></object></object>
        <list name="loose"><row><real name="d" value="2"/><integer name="n" value="-7"/>
          <list name="tags"><row><string name="t" value="x"/></row></list></row></list>
        <list name="q"><template><list name="inner"><template name="i"><integer name="n"/></template></list>
          </template><row><list name="inner"><row><integer name="n" value="5"/></row></list></row></list>
      </r>)";
    auto original = readTree(xml);
    auto copy = readTree(R"(<r service="t"><real name="whole"/><real name="nan"/><real name="inf"/>
        <string name="quote"/><object name="o"><object name="p"><boolean name="b"/></object></object>
        <list name="loose"/><list name="q"><template><list name="inner"><template name="i"><integer name="n"/>
        </template></list></template></list></r>)");
    ASSERT_TRUE(original && copy);
    const std::string state = stateOf(*original);
    EXPECT_THAT(state, HasSubstr(R"("whole":187.0,"nan":"nan","inf":"-inf")"));
    EXPECT_EQ(protocol::applyRuntimeUpdate<RuntimeTreeModel>(state, *copy), std::nullopt);
    EXPECT_EQ(stateOf(*copy), state);
    EXPECT_TRUE(
        protocol::runtime_update::sameTree<RuntimeTreeModel>(*copy->findChild("loose"), *original->findChild("loose")));
}

class RuntimeDataHubTest : public ::testing::Test {
protected:
    void SetUp() override { hub.add("player", readTree(playerXml)); }

    std::string state() const { return *hub.state("player"); }

    RuntimeDataHub hub;
    RecordingSubscriber first;
    RecordingSubscriber second;
};

TEST_F(RuntimeDataHubTest, ASubscriberGetsTheWholeStateAtOnceAndThenEveryUpdateUntilItUnsubscribes) {
    EXPECT_EQ(hub.subscribe(first, 1, "servicedata://player"), std::nullopt);
    EXPECT_THAT(first.deliveries,
                ElementsAre(Delivery{1, R"({"values":{"volume":3,"gain":-1.5,"muted":false,)"
                                        R"("track":{"title":"Blue Hour","duration":215.5},)"
                                        R"("queue":[{"title":"Cold Light","duration":187.0}],"albums":"1;2"}})"}));
    hub.subscribe(second, 1, "servicedata://player");
    hub.subscribe(second, 2, "servicedata://player");
    first.deliveries.clear();
    second.deliveries.clear();

    const std::string update = R"({"rows":[{"list":"queue","insert":1,"row":{"title":"Red Sky"}}]})";
    PublishOutcome outcome = hub.publish("player", update);
    EXPECT_EQ(outcome.status, PublishOutcome::Status::published);
    EXPECT_EQ(outcome.message, "published to servicedata://player (3 subscribers)");
    EXPECT_THAT(first.deliveries, ElementsAre(Delivery{1, update}));
    EXPECT_THAT(second.deliveries, ElementsAre(Delivery{1, update}, Delivery{2, update}));
    EXPECT_THAT(state(), HasSubstr(R"("queue":[{"title":"Cold Light","duration":187.0},{"title":"Red Sky",)"));

    hub.unsubscribe(second, 1);
    hub.unsubscribeAll(first);
    hub.publish("player", "{}");
    EXPECT_EQ(first.deliveries.size(), 1u);
    EXPECT_THAT(second.deliveries, ElementsAre(Delivery{1, update}, Delivery{2, update}, Delivery{2, "{}"}));
    EXPECT_EQ(hub.subscriberCount("player"), 1u);
    EXPECT_EQ(hub.publish("player", "{}").message, "published to servicedata://player (1 subscriber)");
}

TEST_F(RuntimeDataHubTest, ARefusedUpdateChangesNothingAndReachesNobody) {
    hub.subscribe(first, 1, "servicedata://player");
    first.deliveries.clear();
    const std::string before = state();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"values":{"volume":4)", "update refused: not JSON (incomplete JSON at byte 21)"},
        // Values that fit, with a row operation that does not: none of it.
        {R"({"values":{"volume":5,"muted":true},"rows":[{"list":"queue","remove":0},{"list":"queue","remove":0}]})",
         R"(update refused at "rows[1]": row 0 is outside the list "queue" of 0 rows)"},
    };
    for (const auto& [update, message] : cases) {
        PublishOutcome outcome = hub.publish("player", update);
        EXPECT_EQ(outcome.status, PublishOutcome::Status::refused) << update;
        EXPECT_EQ(outcome.message, message);
        EXPECT_EQ(state(), before) << update;
    }
    EXPECT_TRUE(first.deliveries.empty());
}

TEST_F(RuntimeDataHubTest, UnknownTreesAreNamedWithThoseThereAre) {
    hub.add("radio", readTree("<r service='radio'><string name='station'/></r>"));
    EXPECT_EQ(
        hub.subscribe(first, 1, "servicedata://tv"),
        std::optional<std::string>("no runtime data \"servicedata://tv\"; this service has \"player\", \"radio\""));
    EXPECT_EQ(hub.subscribe(first, 1, "content://com.tavelorix.content/tracks"),
              std::optional<std::string>(
                  "\"content://com.tavelorix.content/tracks\" is not a runtime data URI (servicedata://<name>)"));
    EXPECT_EQ(hub.publish("tv", "{}").status, PublishOutcome::Status::unknownName);
    EXPECT_EQ(hub.state("tv"), std::nullopt);
    EXPECT_TRUE(first.deliveries.empty());
    EXPECT_THROW(hub.add("radio", readTree("<r service='radio'><string name='station'/></r>")), std::invalid_argument);
}

const RuntimeNode& at(const RuntimeNode& root, const std::string& name) {
    auto child = root.findChild(name);
    if (!child)
        throw std::runtime_error("no node " + name);
    return *child;
}

std::vector<SimulatedTrack> library() {
    std::vector<SimulatedTrack> tracks;
    for (int i = 1; i <= 12; ++i)
        tracks.push_back({i, "T" + std::to_string(i), "A", 100 + i % 3, 30.0 + i});
    return tracks;
}

TEST(PlayerSimulatorTest, PlaysThroughTheQueueWithUpdatesThatFitTheExampleTree) {
    const char* source = std::getenv("ZARVO_SOURCE_DIR");
    ASSERT_NE(source, nullptr);
    auto trees = loadRuntimeFile(std::string(source) + "/examples/player.xml");
    RuntimeDataHub hub;
    hub.add("player", trees.at(0).root);
    const RuntimeNode& root = *trees.at(0).root;

    PlayerSimulator player(library());
    ASSERT_EQ(hub.publish("player", player.fullState()).status, PublishOutcome::Status::published);
    EXPECT_EQ(at(root, "queue").itemCount(), PlayerSimulator::queueLength);
    EXPECT_EQ(std::get<std::string>(at(root, "state").getValue()), "playing");

    int tracksStarted = 0;
    std::set<std::string> states;
    double lastPosition = 0.0;
    for (int tick = 0; tick < 300; ++tick) {
        const std::string update = player.tick();
        PublishOutcome outcome = hub.publish("player", update);
        ASSERT_EQ(outcome.status, PublishOutcome::Status::published) << outcome.message << "\n" << update;

        // Playing moves the position on, or starts the next track; a pause
        // holds it.
        const double position = std::get<double>(at(root, "position").getValue());
        if (std::get<bool>(at(root, "playing").getValue())) {
            EXPECT_TRUE(position == lastPosition + PlayerSimulator::secondsPerTick || position == 0.0) << position;
            tracksStarted += position == 0.0;
        } else {
            EXPECT_EQ(position, lastPosition);
        }
        lastPosition = position;
        states.insert(std::get<std::string>(at(root, "state").getValue()));
        ASSERT_EQ(at(root, "queue").itemCount(), PlayerSimulator::queueLength);
    }
    EXPECT_GE(tracksStarted, 5);
    EXPECT_EQ(states, (std::set<std::string>{"paused", "playing"}));
}

TEST(PlayerSimulatorTest, AfterAResyncTheNextTickIsTheFullState) {
    PlayerSimulator player(library());
    player.tick();
    player.resync();
    EXPECT_EQ(player.tick(), player.fullState());
    EXPECT_NE(player.tick(), player.fullState());
}

}  // namespace
}  // namespace tethrix::service
