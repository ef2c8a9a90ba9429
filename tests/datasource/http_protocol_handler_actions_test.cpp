#include "datasource/http_protocol_handler_actions.h"

#include <zarvo/testkit/image_server.h>
#include <zarvo/testkit/sample_images.h>

#include <zarvo/client.h>
#include <zarvo/domain.h>
#include <zarvo/image.h>
#include <zarvo/resource_manager.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <unordered_set>

namespace zarvo {

using namespace zarvo::testkit;
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class HttpProtocolHandlerActionsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        testkit::imageServers().put("handler.png", testkit::samplePng());
        testkit::imageServers().put("handler.jpg", testkit::sampleJpeg());
    }

    ResourceManager& manager() { return *host.domain().getResourceManager(); }
    std::shared_ptr<Context> context() { return Context::instance(host.domain(), nullptr); }

    /// Loads `url` through the resource manager and runs the loop until the
    /// completion arrives; gives what the manager then holds for it.
    std::shared_ptr<Resource> acquire(const std::string& url) {
        bool finished = false;
        manager().acquireResourcesAsync({url}, [&finished] { finished = true; });
        EXPECT_TRUE(host.loop().runUntil([&finished] { return finished; }, std::chrono::seconds(30)));
        return manager().acquireLoadedResource(url);
    }

    testkit::ImageServers& servers = testkit::imageServers();
    testkit::TestHost host;
    testkit::LogCapture log;
};

TEST_F(HttpProtocolHandlerActionsTest, RegistersHttpThenHttpsAfterSettingTheContextValue) {
    registerSupportedProtocols(&host.domain());

    EXPECT_THAT(log.lines(), ElementsAre("info debug: Registering http protocol", "info debug: Registering https protocol"));
    EXPECT_TRUE(manager().supportsProtocolHandler("http"));
    EXPECT_TRUE(manager().supportsProtocolHandler("https"));
    EXPECT_EQ(1, context()->getContextValue(1, 0));
}

std::shared_ptr<Texture> otherHandlersTexture;

std::int32_t otherHttpHandler(ResourceManager*, string_view, string_view, string_view, std::uint32_t, string_view,
                              void*, std::shared_ptr<Resource>& resource, std::shared_ptr<ResourceManager::LoadTask>&) {
    resource = otherHandlersTexture;
    return 0;
}

TEST_F(HttpProtocolHandlerActionsTest, ExistingHttpHandlerIsKept) {
    Texture::CreateInfo2D info(std::make_unique<BitmapImage>(1, 1, BitmapImage::Format::RGB8,
                                                             std::vector<std::uint8_t>(3)));
    otherHandlersTexture = Texture::create(&host.domain(), info, "other");
    manager().registerProtocolHandler("http", &otherHttpHandler, nullptr, nullptr);

    registerSupportedProtocols(&host.domain());
    EXPECT_THAT(log.lines(), ElementsAre("info debug: Registering https protocol"));

    EXPECT_EQ(otherHandlersTexture, acquire(servers.httpUrl("handler.png")));
    EXPECT_THAT(log.lines(), Not(Contains(StartsWith("info debug: Loading image from:"))));
    otherHandlersTexture.reset();
}

TEST_F(HttpProtocolHandlerActionsTest, UpperCaseSchemeReachesTheHandlerAndLoadsWithAWarning) {
    registerSupportedProtocols(&host.domain());
    const std::string url = "HTTP" + servers.httpUrl("handler.png").substr(4);

    EXPECT_NE(nullptr, std::dynamic_pointer_cast<Texture>(acquire(url)));
    EXPECT_THAT(log.lines(), ElementsAre("info debug: Registering http protocol",
                                         "info debug: Registering https protocol",
                                         "info debug: Loading image from: " + url + ".",
                                         "warning tethrix: Unsupported protocol for file request: " + url));
}

}  // namespace
}  // namespace zarvo
