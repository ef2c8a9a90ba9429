#include <zarvo/data_source.h>
#include <zarvo/domain.h>
#include <zarvo/host/statistics.h>
#include <zarvo/resource_manager.h>
#include <zarvo/testkit/notification_recorder.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace zarvo {
namespace {

using testing::ElementsAre;

std::shared_ptr<DataObject> object(const std::string& name) {
    return std::make_shared<DataObject>(nullptr, name);
}

class TestSource : public DataSource {
public:
    using DataSource::DataSource;
    std::shared_ptr<DataObject> getData() override { return root; }
    const Metaclass* getDynamicMetaclass() const override { return DataSource::getStaticMetaclass(); }
    std::shared_ptr<DataObject> root;
};

TEST(TreeTest, ChildrenKeepTheirOrderAndEmptySlotsAndLookupFollowsDottedNamesBelowASourceWithOrWithoutTheRoot) {
    auto parent = object("p");
    parent->addChild(object("a"));
    parent->addChild(nullptr);
    parent->addChild(object("c"));
    ASSERT_EQ(parent->getChildCount(), 3u);
    EXPECT_EQ(parent->getChild(1), nullptr);
    EXPECT_EQ(parent->getChild(2)->getName(), "c");
    EXPECT_EQ(parent->getChild(3), nullptr);
    EXPECT_EQ(parent->findChild("c"), parent->getChild(2));
    parent->removeAllChildren();
    EXPECT_EQ(parent->getChildCount(), 0u);

    // Root { connected, Items { first, second }, Items }: the first match counts.
    auto root = object("Root");
    auto connected = std::make_shared<DataObjectBoolean>(nullptr, "connected");
    auto items = object("Items");
    root->addChild(connected);
    root->addChild(items);
    items->addChild(object("first"));
    items->addChild(object("second"));
    root->addChild(object("Items"));
    EXPECT_EQ(root->lookupDataContext(""), root);
    EXPECT_EQ(root->lookupDataContext("Items.second"), items->getChild(1));
    EXPECT_EQ(root->lookupDataContext("Items.third"), nullptr);
    EXPECT_EQ(root->lookupDataContext("connected.x"), nullptr);
    EXPECT_EQ(root->lookupDataContext("Items..first"), nullptr);
    EXPECT_EQ(root->getData(), root);

    TestSource source(nullptr, "source");
    EXPECT_EQ(source.lookupDataContext(""), nullptr) << "no data yet";
    EXPECT_EQ(source.lookupDataContext("connected"), nullptr);
    source.root = root;
    EXPECT_EQ(source.lookupDataContext(""), root);
    EXPECT_EQ(source.lookupDataContext("Root"), root);
    EXPECT_EQ(source.lookupDataContext("connected"), connected);
    EXPECT_EQ(source.lookupDataContext("Root.Items.first"), items->getChild(0));
    EXPECT_EQ(source.lookupDataContext("Root.nothing"), nullptr);
}

TEST(DataContextTest, NotificationsReachSubscribersInOrderUntilRemovedAndChangesDuringOneTakeEffectAsDocumented) {
    auto context = object("c");
    std::vector<std::string> calls;
    auto first = context->addModifiedSubscription([&](DataContext& c) { calls.push_back("1:" + c.getObjectName()); });
    auto second = context->addModifiedSubscription([&](DataContext&) { calls.push_back("2"); });
    context->notifyModified();
    context->removeModifiedSubscription(first);
    context->removeModifiedSubscription(first);
    context->removeModifiedSubscription(nullptr);
    context->notifyModified();
    EXPECT_THAT(calls, ElementsAre("1:c", "2", "2"));
    EXPECT_EQ(context->getModifiedSubscriptionCount(), 1u);

    // Changes during a notification take effect as documented.
    context = object("c");
    calls.clear();
    std::shared_ptr<void> third;
    std::shared_ptr<void> self;
    context->addModifiedSubscription([&](DataContext& c) {
        calls.push_back("remover");
        c.removeModifiedSubscription(third);
        c.addModifiedSubscription([&](DataContext&) { calls.push_back("added"); });
    });
    self = context->addModifiedSubscription([&](DataContext& c) {
        calls.push_back("self");
        c.removeModifiedSubscription(self);
    });
    third = context->addModifiedSubscription([&](DataContext&) { calls.push_back("third"); });

    context->notifyModified();
    EXPECT_THAT(calls, ElementsAre("remover", "self"));
    calls.clear();
    context->notifyModified();
    EXPECT_THAT(calls, ElementsAre("remover", "added"));

    // A subscriber that drops the object's last owner: the round still ends.
    calls.clear();
    context->addModifiedSubscription([&](DataContext&) { context.reset(); });
    context->addModifiedSubscription([&](DataContext&) { calls.push_back("after"); });
    context->notifyModified();
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(calls.back(), "after");
}

// Each thread counts its own objects; only the sum, with what ended threads
// left, is the count of live objects.
TEST(DataObjectCountTest, ObjectsMadeOrDroppedOnOtherThreadsCountOnce) {
    const std::size_t before = liveDataObjectCount();
    std::shared_ptr<DataObject> madeThere;
    std::thread([&madeThere] {
        madeThere = object("kept");
        object("dropped");
    }).join();
    EXPECT_EQ(liveDataObjectCount(), before + 1);
    const auto madeHere = object("here");
    std::thread([&madeThere] { madeThere.reset(); }).join();
    EXPECT_EQ(liveDataObjectCount(), before + 1);
}

TEST(DomainTest, AttachmentsGoFirstNewestFirstWhileTheLoopStillLives) {
    std::vector<std::string> order;
    struct Attachment {
        Attachment(std::vector<std::string>* order, std::string name, Domain* domain)
            : order(order),
              name(std::move(name)),
              domain(domain) {}
        std::vector<std::string>* order;
        std::string name;
        Domain* domain;
        ~Attachment() { order->push_back(name + (domain->getMessageDispatcher() != nullptr ? "+loop" : "")); }
    };
    {
        testkit::TestHost host;
        Domain& domain = host.domain();
        domain.setAttachment("a", std::make_shared<Attachment>(&order, "a", &domain));
        domain.setAttachment("b", std::make_shared<Attachment>(&order, "b", &domain));
        domain.setAttachment("c", std::make_shared<Attachment>(&order, "c", &domain));
        domain.setAttachment("a", std::make_shared<Attachment>(&order, "a2", &domain));
        EXPECT_THAT(order, ElementsAre("a+loop"));
        EXPECT_NE(domain.getAttachment("b"), nullptr);
        EXPECT_EQ(domain.getAttachment("zzz"), nullptr);
    }
    EXPECT_THAT(order, ElementsAre("a+loop", "a2+loop", "c+loop", "b+loop"));
}

}  // namespace
}  // namespace zarvo
