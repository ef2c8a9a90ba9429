// The simulated player: every update it makes fits the tree of
// examples/player.xml, and over a while it does what a player does.
#include "content_store.h"
#include "player_simulator.h"
#include "runtime_data_hub.h"
#include "runtime_file.h"
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/running_service.h>

#include <tethrix/protocol/runtime_tree.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

namespace tethrix::service {
namespace {

using namespace zarvo::testkit;

const RuntimeNode& at(const RuntimeNode& root, const std::string& name)
{
    auto child = root.findChild(name);
    if (!child) throw std::runtime_error("no node " + name);
    return *child;
}

std::vector<SimulatedTrack> library()
{
    std::vector<SimulatedTrack> tracks;
    for (int i = 1; i <= 12; ++i) tracks.push_back({i, "T" + std::to_string(i), "A", 100 + i % 3, 30.0 + i});
    return tracks;
}

TEST(PlayerSimulatorTest, PlaysThroughTheQueueWithUpdatesThatFitTheExampleTree)
{
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
    std::set<int> volumes;
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
        volumes.insert(std::get<int>(at(root, "volume").getValue()));
        states.insert(std::get<std::string>(at(root, "state").getValue()));
        ASSERT_EQ(at(root, "queue").itemCount(), PlayerSimulator::queueLength);
        // The album playing leads the list of recent albums.
        const std::string albums = std::get<std::string>(at(root, "recent_albums").getValue());
        EXPECT_EQ(albums.substr(0, albums.find(';')),
                  std::to_string(std::get<int>(at(at(root, "track"), "album").getValue())));
    }
    EXPECT_GE(tracksStarted, 5);
    EXPECT_GE(volumes.size(), 2u);
    EXPECT_EQ(states, (std::set<std::string>{"paused", "playing"}));
}

TEST(PlayerSimulatorTest, AfterAResyncTheNextTickIsTheFullState)
{
    PlayerSimulator player(library());
    player.tick();
    player.resync();
    EXPECT_EQ(player.tick(), player.fullState());
    EXPECT_NE(player.tick(), player.fullState());
}

}  // namespace
}  // namespace tethrix::service
