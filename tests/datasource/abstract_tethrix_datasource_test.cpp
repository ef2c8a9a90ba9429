// How a data source's tree and its "connected" flag follow the connection.

#include "data_source_fixture.h"

#include <gmock/gmock.h>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const STATE_LINE = "AbstractTethrixDataSource::onConnectionStateChanged(): State = ";

class ConnectedFlag : public DataSourceFixture {
protected:
    void SetUp() override {
        source = makeSource(std::string());
        recorder.watch(*source, "DataSource");
    }

    bool flag() const {
        auto connected = std::dynamic_pointer_cast<DataObjectBoolean>(source->getData()->getChild(0));
        return connected->getValue();
    }

    void loadAndWatch() {
        load(*source);
        recorder.watchTree(source->getData());
        recorder.clear();
        log.clear();
    }

    std::shared_ptr<ZarvoTethrixDataSource> source;
    testkit::NotificationRecorder recorder;
};

TEST_F(ConnectedFlag, TreeIsRootWithConnectedOnlyAndExistsOnlyBetweenStartAndStop) {
    EXPECT_EQ(source->getData(), nullptr);

    load(*source);
    std::shared_ptr<DataObject> root = source->getData();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->getName(), "Root");
    EXPECT_EQ(root->getType(), DataObject::TypeObject);
    ASSERT_EQ(root->getChildCount(), 1u);
    EXPECT_EQ(root->getChild(0)->getName(), "connected");
    EXPECT_EQ(root->getChild(0)->getType(), DataObject::TypeBoolean);
    EXPECT_FALSE(flag());
    EXPECT_FALSE(source->isConnected());
    EXPECT_EQ(recorder.events(), std::vector<std::string>{"DataSource"});

    source->unloadOverride();
    EXPECT_EQ(source->getData(), nullptr);
}

TEST_F(ConnectedFlag, FollowsTheConnectionWithOneNotificationPerChange) {
    loadAndWatch();

    setState(Connection::StateConnected);
    EXPECT_TRUE(flag());
    setState(Connection::StateConnected);  // a repeat changes nothing
    setState(Connection::StateLost);
    EXPECT_FALSE(flag());
    setState(Connection::StateLost);

    EXPECT_THAT(recorder.events(), ElementsAre("Root.connected", "Root.connected"));
    EXPECT_THAT(log.messages(LogLevel::Info),
                ElementsAre(std::string(STATE_LINE) + "1", std::string(STATE_LINE) + "1",
                            std::string(STATE_LINE) + "2", std::string(STATE_LINE) + "2"));
}

TEST_F(ConnectedFlag, EveryDeliveryStartsOrStopsTheAdaptersAgain) {
    loadAndWatch();

    setState(Connection::StateConnected);
    setState(Connection::StateConnected);
    setState(Connection::StateLost);
    setState(Connection::StateLost);

    const Context::ServiceStatistics content = service.contentStatistics();
    EXPECT_EQ(content.acquires, 2u);
    EXPECT_EQ(content.releases, 2u);
}

TEST_F(ConnectedFlag, OtherStatesAreLoggedAndChangeNothing) {
    loadAndWatch();
    setState(Connection::StateConnected);
    recorder.clear();
    log.clear();

    setState(static_cast<Connection::State>(7));
    setState(Connection::StateNotConnected);

    EXPECT_TRUE(flag());
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_THAT(log.messages(), ElementsAre(std::string(STATE_LINE) + "7", std::string(STATE_LINE) + "0"));
    EXPECT_EQ(service.contentStatistics().acquires, 1u);
    EXPECT_EQ(service.contentStatistics().releases, 0u);
}

TEST_F(ConnectedFlag, SourceLoadedWhileUpStartsLiveAndTellsBindingsLast) {
    setState(Connection::StateConnected);
    source = makeSource(std::string());  // made after the connection came up
    log.clear();
    const std::size_t acquiresBefore = service.contentStatistics().acquires;

    // The tree does not exist before loading, so the source's own
    // notification is checked to come after the flag is already set.
    std::vector<std::string> order;
    auto token = source->addModifiedSubscription([&](DataContext&) {
        order.push_back("DataSource");
        EXPECT_TRUE(source->isConnected());
    });
    load(*source);
    source->removeModifiedSubscription(token);

    EXPECT_TRUE(flag());
    EXPECT_EQ(order, std::vector<std::string>{"DataSource"});
    EXPECT_THAT(log.lines(), ElementsAre(std::string("info tethrix: ") + STATE_LINE + "1"));
    EXPECT_EQ(service.contentStatistics().acquires, acquiresBefore + 1);
}

TEST_F(ConnectedFlag, StopWhileUpLetsTheFlagFallAndReleasesTheServiceTwice) {
    loadAndWatch();
    setState(Connection::StateConnected);
    recorder.clear();
    log.clear();

    source->unloadOverride();

    EXPECT_THAT(recorder.events(), ElementsAre("Root.connected"));
    EXPECT_THAT(log.messages(), ElementsAre(std::string(STATE_LINE) + "2"));
    const Context::ServiceStatistics content = service.contentStatistics();
    EXPECT_EQ(content.acquires, 1u);
    EXPECT_EQ(content.releases, 2u);
}

TEST_F(ConnectedFlag, AfterStopAndStartTheSourceNoLongerFollowsTheConnection) {
    load(*source);
    source->unloadOverride();
    load(*source);
    recorder.watchTree(source->getData());
    recorder.clear();
    log.clear();

    setState(Connection::StateConnected);
    setState(Connection::StateLost);
    setState(Connection::StateConnected);

    EXPECT_FALSE(flag());
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(service.contentStatistics().acquires, 0u);
}

TEST_F(ConnectedFlag, ReloadWhileUpReadsTheStateOnceAndKeepsIt) {
    load(*source);
    setState(Connection::StateConnected);
    source->unloadOverride();
    load(*source);  // the connection is still up: the new tree starts live
    EXPECT_TRUE(flag());

    setState(Connection::StateLost);  // no longer followed
    EXPECT_TRUE(flag());
}

}  // namespace
}  // namespace test
}  // namespace zarvo
