// How a data source's tree and its "connected" flag follow the connection.

#include "data_source_fixture.h"

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string stateLine = "AbstractTethrixDataSource::onConnectionStateChanged(): State = ";

class ConnectedFlag : public DataSourceFixture {
protected:
    void SetUp() override {
        makeSource(std::string());
        recorder.watch(*source, "DataSource");
    }

    bool flag() const {
        return std::dynamic_pointer_cast<DataObjectBoolean>(source->getData()->getChild(0))->getValue();
    }

    void loadAndWatch() {
        load(*source);
        recorder.watchTree(source->getData());
        recorder.clear();
        log.clear();
    }

    void expectContentStatistics(std::size_t acquires, std::size_t releases) {
        EXPECT_EQ(service.contentStatistics().acquires, acquires);
        EXPECT_EQ(service.contentStatistics().releases, releases);
    }
};

TEST_F(ConnectedFlag, FollowsConnectedAndLostWithOneNotificationPerChangeAndLogsEveryState) {
    loadAndWatch();

    setState(Connection::StateConnected);
    EXPECT_TRUE(flag());
    setState(Connection::StateConnected);  // a repeat changes nothing
    setState(Connection::StateLost);
    EXPECT_FALSE(flag());
    setState(Connection::StateLost);
    // Every delivery starts or stops the adapters again.
    expectContentStatistics(2, 2);
    setState(Connection::StateConnected);
    setState(static_cast<Connection::State>(7));  // other states change nothing
    setState(Connection::StateNotConnected);

    EXPECT_TRUE(flag());
    EXPECT_THAT(recorder.events(), ElementsAre("Root.connected", "Root.connected", "Root.connected"));
    EXPECT_THAT(log.messages(LogLevel::Info),
                ElementsAre(stateLine + "1", stateLine + "1", stateLine + "2", stateLine + "2", stateLine + "1",
                            stateLine + "7", stateLine + "0"));
    expectContentStatistics(3, 2);
}

TEST_F(ConnectedFlag, StopWhileUpLetsTheFlagFallAndAReloadReadsTheStateOnceAndNoLongerFollows) {
    loadAndWatch();
    setState(Connection::StateConnected);
    recorder.clear();
    log.clear();

    source->unloadOverride();
    EXPECT_THAT(recorder.events(), ElementsAre("Root.connected"));
    EXPECT_THAT(log.messages(), ElementsAre(stateLine + "2"));
    expectContentStatistics(1, 2);  // the service is released twice

    loadAndWatch();  // the connection is still up: the new tree starts live
    EXPECT_TRUE(flag());
    setState(Connection::StateLost);
    setState(Connection::StateConnected);
    EXPECT_TRUE(flag());
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
    expectContentStatistics(2, 2);
}

TEST_F(ConnectedFlag, TheTreeLivesFromLoadToUnload) {
    EXPECT_EQ(source->getData(), nullptr);
    load(*source);
    EXPECT_THAT(childNames(*source->getData()), ElementsAre("connected"));
    EXPECT_FALSE(flag());
    EXPECT_FALSE(source->isConnected());
    EXPECT_THAT(recorder.take(), ElementsAre("DataSource"));
    source->unloadOverride();
    EXPECT_EQ(source->getData(), nullptr);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
