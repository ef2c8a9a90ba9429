// The client library's context, its connection state and the results that
// loaders deliver.
#include <zarvo/client.h>
#include <zarvo/content_query.h>
#include <zarvo/domain.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>
#include <boost/any.hpp>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(ContextTest, OneContextPerDomainLivingAsLongAsTheDomain) {
    std::weak_ptr<Context> weak;
    {
        testkit::TestHost host;
        testkit::TestHost other;
        auto context = Context::instance(host.domain(), nullptr);
        EXPECT_EQ(Context::instance(host.domain(), "ignored"), context);
        EXPECT_NE(Context::instance(other.domain(), nullptr), context);
        weak = context;
    }
    EXPECT_TRUE(weak.expired());
}

TEST(ContextTest, AServiceClientIsSharedByHoldersAndGoesWithTheLastRelease) {
    testkit::TestHost host;
    auto context = Context::instance(host.domain(), nullptr);
    int factoryCalls = 0;
    auto acquire = [&] {
        return context->acquireService("Content", [&](Client* client, const std::string& name) {
            ++factoryCalls;
            return ContentServiceClient::create(client, name);
        });
    };
    auto first = acquire();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(acquire(), first);
    EXPECT_EQ(factoryCalls, 1);

    std::weak_ptr<AbstractServiceClient> weak = first;
    first.reset();
    context->releaseService("Content");
    EXPECT_FALSE(weak.expired());
    context->releaseService("Content");
    EXPECT_TRUE(weak.expired());

    acquire();
    EXPECT_EQ(factoryCalls, 2);
}

TEST(ResolveResourceUrlTest, ResolvesAgainstTheBaseTheServiceGave) {
    const struct {
        const char* base;
        const char* url;
        const char* expected;
    } cases[] = {{"", "images/a.png", "images/a.png"},
                 {"http://127.0.0.1:8080/files/", "https://cdn/a.png", "https://cdn/a.png"},
                 {"http://127.0.0.1:8080/files/", "images/a.png", "http://127.0.0.1:8080/files/images/a.png"},
                 {"http://127.0.0.1:8080/files/", "/a.png", "http://127.0.0.1:8080/a.png"},
                 {"http://127.0.0.1:8080/files/", "../a.png?s=2", "http://127.0.0.1:8080/a.png?s=2"},
                 {"http://127.0.0.1:8080/files/", "./x/./y/../a.png", "http://127.0.0.1:8080/files/x/a.png"},
                 {"http://127.0.0.1:8080/files/", "//mirror/a.png", "http://mirror/a.png"},
                 {"http://127.0.0.1:8080/files", "a.png", "http://127.0.0.1:8080/a.png"},
                 {"http://h/p/q?x=1", "?y=2", "http://h/p/q?y=2"},
                 {"http://h/p/q?x=1", "#top", "http://h/p/q?x=1#top"},
                 {"http://h/p/", "", ""},
                 {"not a base", "a.png", "a.png"}};
    for (const auto& c : cases) {
        testkit::TestHost host;
        testkit::ScriptedService service(host.domain());
        if (*c.base) {
            service.setResourceBaseUrl(c.base);
            host.runUntilIdle();
        }
        EXPECT_EQ(service.context()->getClient()->resolveResourceUrl(c.url, 1), c.expected) << c.base << " " << c.url;
    }
}

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

TEST(ContentResultTest, CellsAreReadRowMajorAtTheCurrentRowAndOutOfRangeGivesEmptyValues) {
    ContentResult result(
        40, {{"id", ContentDataTypeInteger}, {"title", ContentDataTypeString}},
        {boost::any(1), boost::any(std::string("One")), boost::any(2), boost::any(std::string("Two"))});
    EXPECT_EQ(result.getStartIndex(), 40u);
    EXPECT_EQ(result.getRowCount(), 2u);
    EXPECT_EQ(result.getColumnCount(), 2u);
    EXPECT_EQ(result.getColumnName(1), "title");
    EXPECT_EQ(result.getColumnType(1), ContentDataTypeString);
    EXPECT_EQ(boost::any_cast<int>(result.getValueAny(0)), 1);
    EXPECT_TRUE(result.getValueAny(2).empty());
    result.setRowIndex(1);
    EXPECT_EQ(boost::any_cast<int>(result.getValueAny(0)), 2);
    result.setRowIndex(2);
    EXPECT_TRUE(result.getValueAny(0).empty());
    EXPECT_EQ(result.getColumnValue(0), "");

    EXPECT_THROW(ContentResult(0, {{"a", ContentDataTypeInteger}, {"b", ContentDataTypeInteger}}, {boost::any(1)}),
                 std::invalid_argument);
    EXPECT_THROW(ContentResult(0, {}, {boost::any(1)}), std::invalid_argument);
    EXPECT_EQ(ContentResult(0, {}, std::vector<boost::any>{}).getRowCount(), 0u);
}

TEST(ContentResultTest, ColumnValueRendersEachTypeAsText) {
    const struct {
        ContentDataType type;
        boost::any value;
        std::string text;
    } cases[] = {
        {ContentDataTypeInteger, boost::any(-42), "-42"},
        {ContentDataTypeInteger, boost::any(std::numeric_limits<int>::min()), "-2147483648"},
        {ContentDataTypeFloat, boost::any(0.1f), "0.1"},
        {ContentDataTypeFloat, boost::any(-3.0f), "-3"},
        {ContentDataTypeFloat, boost::any(1e20f), "1e+20"},
        {ContentDataTypeFloat, boost::any(std::numeric_limits<float>::infinity()), "inf"},
        {ContentDataTypeBool, boost::any(true), "1"},
        {ContentDataTypeBool, boost::any(false), "0"},
        {ContentDataTypeString, boost::any(std::string("Ä b;c")), "Ä b;c"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ContentResult(0, {{"c", c.type}}, {c.value}).getColumnValue(0), c.text) << c.text;
    }
}

}  // namespace
}  // namespace zarvo
