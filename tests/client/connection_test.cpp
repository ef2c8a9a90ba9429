#include <zarvo/client.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ConnectionTest : public ::testing::Test {
protected:
    /// Subscribes and keeps the token: a subscription lasts while it is held.
    std::shared_ptr<void> subscribe(const std::string& label) {
        tokens.push_back(connection().addStateSubscription(
            [this, label](Connection::State state) { heard.push_back(label + std::to_string(state)); }));
        return tokens.back();
    }
    Connection& connection() { return *service.context()->getClient()->getConnection(); }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    std::vector<std::string> heard;
    std::vector<std::shared_ptr<void>> tokens;
};

TEST_F(ConnectionTest, StatesFromTheServiceReachSubscribersOnlyWhenTheLoopRuns) {
    subscribe("a");
    subscribe("b");
    service.setState(Connection::StateConnected);
    service.setState(Connection::StateConnected);
    service.setState(Connection::StateLost);

    EXPECT_EQ(connection().getState(), Connection::StateNotConnected);
    EXPECT_THAT(heard, IsEmpty());

    host.runUntilIdle();
    // Every report counts, a repeat too, in order of subscribing.
    EXPECT_THAT(heard, ElementsAre("a1", "b1", "a1", "b1", "a2", "b2"));
    EXPECT_EQ(connection().getState(), Connection::StateLost);
}

TEST_F(ConnectionTest, ChangesToSubscriptionsDuringADeliveryTakeEffectAtOnce) {
    std::shared_ptr<void> self;
    std::shared_ptr<void> later;
    self = connection().addStateSubscription([&](Connection::State state) {
        heard.push_back("self" + std::to_string(state));
        connection().removeStateSubscription(self);
        connection().removeStateSubscription(later);
        subscribe("new");
    });
    later = subscribe("later");

    connection().setState(Connection::StateConnected);
    // The removed one is skipped at once; the new one waits for the next state.
    EXPECT_THAT(heard, ElementsAre("self1"));

    connection().setState(Connection::StateLost);
    EXPECT_THAT(heard, ElementsAre("self1", "new2"));
}

TEST_F(ConnectionTest, SubscriberLetGoDuringADeliveryIsNotCalledForIt) {
    std::shared_ptr<void> second;
    tokens.push_back(connection().addStateSubscription([&](Connection::State) {
        heard.push_back("first");
        second.reset();  // its holder is destroyed without removing it
    }));
    second = subscribe("second");
    tokens.pop_back();

    connection().setState(Connection::StateConnected);
    EXPECT_THAT(heard, ElementsAre("first"));
}

TEST_F(ConnectionTest, SubscriberMayDestroyTheContextThatNotifiesIt) {
    // The domain holds the context; nothing else here does.
    tokens.push_back(connection().addStateSubscription([&](Connection::State) {
        heard.push_back("first");
        host.domain().setAttachment("zarvo.client.context", nullptr);
    }));
    subscribe("second");

    service.setState(Connection::StateConnected);
    host.runUntilIdle();
    EXPECT_THAT(heard, ElementsAre("first"));
    EXPECT_EQ(service.context(), nullptr);
}

}  // namespace
}  // namespace zarvo
