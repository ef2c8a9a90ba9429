#include <zarvo/client.h>
#include <zarvo/client/client_core.h>
#include <zarvo/client/transport.h>
#include <zarvo/runtime_data.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/recording_observer.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>

#include <tuple>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testkit::RecordingObserver;

const char* const songs = "content://com.tavelorix.content/songs";

std::shared_ptr<ContentQueryArguments> query(int index = 0, int count = 1) {
    return std::make_shared<ContentQueryArguments>(songs, std::vector<std::string>{"title", "year"}, "year>2000", index,
                                                   count, "title DESC");
}

class LoaderTest : public ::testing::Test {
protected:
    std::shared_ptr<DefaultContentLoader> makeLoader(RecordingObserver& observer) {
        auto client = service.context()->getClient();
        auto loader =
            std::make_shared<DefaultContentLoader>(client.get(), client->getConnection()->getMessageDispatcher());
        loader->addObserver(&observer);
        return loader;
    }
    void replyOneSong(const testkit::RecordedQuery& sent, const std::string& title) {
        service.reply(sent, {{"title", ContentDataTypeString}, {"year", ContentDataTypeInteger}},
                      {{std::string(title), 2001}}, static_cast<std::size_t>(sent.index));
    }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    RecordingObserver observer;
};

TEST_F(LoaderTest, QueryReachesTheServiceWithAllItsArgumentsAndTheAnswerArrivesOnlyWhenTheLoopRuns) {
    auto loader = makeLoader(observer);
    loader->addObserver(&observer);  // already there: still told once
    loader->load(query(200, 50));
    ASSERT_EQ(service.queries().size(), 1u);
    const testkit::RecordedQuery& sent = service.queries()[0];
    EXPECT_EQ(sent.loaderId, loader->getLoaderId());
    EXPECT_THAT(sent.columns, ElementsAre("title", "year"));
    EXPECT_EQ(std::tie(sent.uri, sent.filter, sent.sort, sent.index, sent.count),
              std::make_tuple(std::string(songs), std::string("year>2000"), std::string("title DESC"), 200, 50));
    EXPECT_EQ(service.openQueryCount(), 1u);

    replyOneSong(sent, "Blue");
    EXPECT_EQ(observer.deliveries(), 0u);
    EXPECT_EQ(service.openQueryCount(), 0u);
    host.runUntilIdle();
    ASSERT_EQ(observer.results.size(), 1u);
    EXPECT_EQ(observer.results[0].startIndex, 200u);
    EXPECT_THAT(observer.results[0].columns, ElementsAre("title", "year"));
    EXPECT_THAT(observer.results[0].rows, ElementsAre(ElementsAre("Blue", "2001")));
    EXPECT_THAT(observer.loaders, ElementsAre(loader.get()));
}

TEST_F(LoaderTest, NothingArrivesAfterStopUntilTheNextQuery) {
    auto loader = makeLoader(observer);
    loader->load(query());
    loader->subscribeRuntimeData("servicedata://player");
    const auto first = service.queries()[0];
    const auto subscription = service.subscriptions()[0];
    replyOneSong(first, "early, still in flight at stop");

    loader->stop();
    EXPECT_EQ(service.openQueryCount(), 0u);
    EXPECT_EQ(service.activeSubscriptionCount(), 0u);
    replyOneSong(first, "late");
    service.invalidate(first);
    service.pushRuntimeUpdate(subscription, "", "volume=3");
    host.runUntilIdle();
    EXPECT_EQ(observer.deliveries(), 0u);

    loader->load(query());
    replyOneSong(first, "old query");
    replyOneSong(service.queries()[1], "new query");
    host.runUntilIdle();
    ASSERT_EQ(observer.results.size(), 1u);
    EXPECT_EQ(observer.results[0].rows[0][0], "new query");
}

TEST_F(LoaderTest, RemovedObserverAndDestroyedLoaderGetNothing) {
    RecordingObserver other;
    auto loader = makeLoader(observer);
    loader->addObserver(&other);
    auto doomed = makeLoader(other);
    loader->load(query());
    doomed->load(query());

    loader->removeObserver(&observer);
    const auto sent = service.queries();
    doomed.reset();
    EXPECT_EQ(service.liveLoaderCount(), 1u);
    EXPECT_EQ(service.openQueryCount(), 1u);
    replyOneSong(sent[0], "kept");
    replyOneSong(sent[1], "for the dead");
    host.runUntilIdle();

    EXPECT_EQ(observer.deliveries(), 0u);
    ASSERT_EQ(other.results.size(), 1u);
    EXPECT_EQ(other.results[0].rows[0][0], "kept");
}

TEST_F(LoaderTest, AnObserverMayRemoveAnotherOrDestroyTheLoaderDuringADelivery) {
    for (bool destroy : {false, true}) {
        RecordingObserver first;
        RecordingObserver second;
        auto loader = makeLoader(first);
        loader->addObserver(&second);
        first.afterDelivery = [&] { destroy ? loader.reset() : loader->removeObserver(&second); };
        loader->load(query());
        replyOneSong(service.takeQueries()[0], "x");
        host.runUntilIdle();
        EXPECT_EQ(first.deliveries(), 1u);
        EXPECT_EQ(second.deliveries(), 0u);
    }
}

TEST_F(LoaderTest, ServiceErrorIsLoggedWithTheQueryAndTheLoaderGetsNothing) {
    testkit::LogCapture log;
    auto loader = makeLoader(observer);
    loader->load(query());
    service.fail(service.queries()[0], "no such table");
    host.runUntilIdle();
    host.advance(std::chrono::minutes(1));

    // A refusal for good is not asked again.
    EXPECT_EQ(service.queries().size(), 1u);
    EXPECT_EQ(service.context()->getClient()->core().openQueryCount(), 0u);
    EXPECT_EQ(observer.deliveries(), 0u);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, LogLevel::Error);
    EXPECT_EQ(entries[0].category, "tethrix-client");
    EXPECT_EQ(entries[0].message, std::string("Query of ") + songs + " failed: no such table");
}

TEST_F(LoaderTest, QueryThatFailsForAPassingReasonIsAskedAgainWithGrowingDelaysUntilAnswered) {
    using std::chrono::milliseconds;
    client::ClientCore& core = service.context()->getClient()->core();
    core.setQueryRetryPolicy({milliseconds(100), milliseconds(150), 2});
    auto loader = makeLoader(observer);
    RecordingObserver stoppedObserver;
    auto stopped = makeLoader(stoppedObserver);
    loader->load(query(100, 50));
    stopped->load(query(0, 50));
    service.fail(service.queries()[0], "too many open requests");
    service.fail(service.queries()[1], "too many open requests");
    host.runUntilIdle();
    stopped->stop();

    const std::vector<std::pair<int, std::size_t>> steps = {{99, 2}, {1, 3}, {149, 3}, {1, 4}};
    for (std::size_t i = 0; i < steps.size(); ++i) {
        host.advance(milliseconds(steps[i].first));
        ASSERT_EQ(service.queries().size(), steps[i].second) << "step " << i;
        if (i == 1) {
            service.fail(service.queries().back(), "database: database is locked");
            host.runUntilIdle();
        }
    }
    const testkit::RecordedQuery& again = service.queries().back();
    EXPECT_EQ(again.loaderId, loader->getLoaderId());
    EXPECT_EQ(again.index, 100);
    EXPECT_EQ(again.count, 50);
    replyOneSong(again, "at last");
    host.runUntilIdle();
    ASSERT_EQ(observer.results.size(), 1u);
    EXPECT_EQ(observer.results[0].rows[0][0], "at last");
    EXPECT_EQ(stoppedObserver.deliveries(), 0u);
    EXPECT_EQ(core.openQueryCount(), 0u);

    // A loader holds a bounded number of open queries.
    testkit::LogCapture log;
    for (int i = 0; i < 3; ++i) {
        loader->load(query(i, 1));
    }
    EXPECT_EQ(core.openQueryCount(), 2u);
    EXPECT_THAT(log.messages(LogLevel::Error),
                ElementsAre(std::string("Query of ") + songs +
                            " refused: its loader has 2 queries open, the most it may have"));
}

TEST_F(LoaderTest, QueryLostWithTheConnectionOrAskedWhileItIsDownIsSentWhenItComesBack) {
    service.setState(Connection::StateConnected);
    auto loader = makeLoader(observer);
    loader->load(query(0, 10));
    service.fail(service.queries()[0], "connection to the service lost");
    service.setState(Connection::StateLost);
    host.runUntilIdle();
    loader->load(query(10, 10));
    host.advance(std::chrono::minutes(1));
    EXPECT_EQ(service.queries().size(), 1u);

    service.setState(Connection::StateConnected);
    host.runUntilIdle();
    ASSERT_EQ(service.queries().size(), 3u);
    replyOneSong(service.queries()[1], "lost with the connection");
    replyOneSong(service.queries()[2], "asked while it was down");
    host.runUntilIdle();
    ASSERT_EQ(observer.results.size(), 2u);
    EXPECT_EQ(observer.results[0].startIndex, 0u);
    EXPECT_EQ(observer.results[1].startIndex, 10u);
}

TEST_F(LoaderTest, FirstUpdateOfEachSubscriptionFiresEveryValueItSetsEvenIfEqual) {
    // The tree as a configuration builds it, with the service's value already.
    auto tree = std::make_shared<RuntimeDataObject>(nullptr, "", "");
    tree->addChild(std::make_shared<RuntimeDataObjectString>(nullptr, "albums", "12;15"));
    int fired = 0;
    tree->findChild("albums")->addModifiedNotificationHandler([&fired](RuntimeDataObject*) { ++fired; });
    auto loader = makeLoader(observer);
    // As a runtime source does; the recorder keeps "address=data", with no address here.
    observer.afterDelivery = [&] { RuntimeDataInternalizer::internalize(observer.updates.back().substr(1), tree); };
    const std::string state = R"({"values":{"albums":"12;15"}})";

    loader->subscribeRuntimeData("servicedata://player");
    service.pushRuntimeUpdate(service.subscriptions()[0], "", state);
    service.pushRuntimeUpdate(service.subscriptions()[0], "", state);
    host.runUntilIdle();
    EXPECT_EQ(fired, 1);

    loader->stop();
    loader->subscribeRuntimeData("servicedata://player");
    service.pushRuntimeUpdate(service.subscriptions()[1], "", state);
    host.runUntilIdle();
    EXPECT_EQ(fired, 2);
}

TEST_F(LoaderTest, ReplacingTheTransportDropsWhatWasAskedOfTheOldOne) {
    std::vector<Connection::State> states;
    auto token = service.context()->getClient()->getConnection()->addStateSubscription(
        [&](Connection::State state) { states.push_back(state); });
    service.setState(Connection::StateConnected);
    host.runUntilIdle();
    auto loader = makeLoader(observer);
    loader->load(query());
    const auto sent = service.queries()[0];

    client::installTransport(*service.context(), nullptr);
    EXPECT_THAT(states, ElementsAre(Connection::StateConnected, Connection::StateLost));
    replyOneSong(sent, "from the old one");
    host.runUntilIdle();
    EXPECT_EQ(observer.deliveries(), 0u);
    EXPECT_EQ(service.context()->getClient()->core().openQueryCount(), 0u);
}

}  // namespace
}  // namespace zarvo
