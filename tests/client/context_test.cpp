#include <zarvo/client.h>
#include <zarvo/domain.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gtest/gtest.h>

#include <string>

namespace zarvo {
namespace {

TEST(ContextTest, OneContextPerDomainLivingAsLongAsTheDomain) {
    std::weak_ptr<Context> weak;
    {
        testkit::TestHost host;
        testkit::TestHost other;
        auto context = Context::instance(host.domain(), nullptr);
        EXPECT_EQ(Context::instance(host.domain(), "ignored"), context);
        EXPECT_NE(Context::instance(other.domain(), nullptr), context);
        EXPECT_EQ(&context->getDomain(), &host.domain());
        ASSERT_NE(context->getClient(), nullptr);
        EXPECT_NE(context->getClient()->getConnection(), nullptr);
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
    EXPECT_EQ(first->getName(), "Content");
    EXPECT_EQ(first->getClient(), context->getClient().get());
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
    } cases[] = {
        {"", "images/a.png", "images/a.png"},
        {"", "https://cdn/a.png", "https://cdn/a.png"},
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

}  // namespace
}  // namespace zarvo
