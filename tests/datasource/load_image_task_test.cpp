// Images over HTTP and HTTPS: the task that fetches and decodes one, and the
// protocol handlers that give the resource manager such tasks.
#include "datasource/load_image_task.h"
#include "datasource/http_protocol_handler_actions.h"

#include <zarvo/testkit/image_server.h>
#include <zarvo/testkit/sample_images.h>

#include <zarvo/client.h>
#include <zarvo/domain.h>
#include <zarvo/resource_manager.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

using namespace zarvo::testkit;
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Matcher;
using ::testing::StartsWith;
using ImageType = LoadImageTask::ImageType;

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int value : values) {
        out += static_cast<char>(value);
    }
    return out;
}

TEST(LoadImageTaskDetectionTest, RecognisesImagesByContentAlone) {
    const std::string png = testkit::samplePng();
    const std::string jpeg = testkit::sampleJpeg();
    struct Case {
        const char* name;
        std::string data;
        ImageType expected;
    } cases[] = {
        {"empty", "", ImageType::Unsupported},
        {"png signature alone", png.substr(0, 8), ImageType::Png},
        {"png signature less one byte", png.substr(0, 7), ImageType::Unsupported},
        {"png", png, ImageType::Png},
        {"png ending in the jpeg end marker", png + bytes({0xFF, 0xD9}), ImageType::Png},
        {"jpeg markers alone", bytes({0xFF, 0xD8, 0xFF, 0xD9}), ImageType::Jpg},
        {"three bytes", bytes({0xFF, 0xD8, 0xD9}), ImageType::Unsupported},
        {"jpeg", jpeg, ImageType::Jpg},
        {"jpeg and one byte more", jpeg + "\n", ImageType::Unsupported},
        {"jpeg without its end marker", jpeg.substr(0, jpeg.size() - 2), ImageType::Unsupported},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        EXPECT_EQ(sample.expected, LoadImageTask::detectImageType(sample.data));
        EXPECT_EQ(sample.expected == ImageType::Png, LoadImageTask::isPngImage(sample.data));
        EXPECT_EQ(sample.expected == ImageType::Jpg, LoadImageTask::isJpgImage(sample.data));
    }
}

class LoadImageTaskTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        testkit::ImageServers& servers = testkit::imageServers();
        const std::string png = testkit::samplePng();
        const std::string jpeg = testkit::sampleJpeg();
        servers.put("task.png", png);
        servers.put("task.jpg", jpeg);
        servers.put("task-missing.png", png, 404);
        servers.put("task-empty.png", "");
        std::string corrupt = png;
        corrupt[corrupt.find("IDAT") + 6] ^= 0x5A;
        servers.put("task-corrupt.png", corrupt);
    }

    /// Runs the three stages as the resource manager does, here on one thread.
    std::shared_ptr<Resource> load(LoadImageTask& task) {
        task.loadFunction(nullptr);
        task.finishFunction(nullptr);
        return task.getResult();
    }

    testkit::ImageServers& servers = testkit::imageServers();
    testkit::TestHost host;
    testkit::LogCapture log;
};

TEST_F(LoadImageTaskTest, LoadsPngAndJpegOverHttpAndHttpsIntoPremultipliedTexturesPastAnyProxy) {
    // A proxy named in the environment is never used: nothing listens on
    // port 1, so a transfer through it would fail.
    const char* const proxies[] = {"http_proxy", "https_proxy", "ALL_PROXY"};
    for (const char* name : proxies) {
        setenv(name, "http://127.0.0.1:1", 1);
    }
    // How the pixels decode is the image decoder's concern; here they only
    // have to arrive, whatever the scheme.
    const std::pair<std::string, BitmapImage::Format> cases[] = {
        {servers.httpUrl("task.png"), BitmapImage::Format::RGBA8},
        // The certificate is self-signed and deliberately not checked.
        {servers.httpsUrl("task.jpg"), BitmapImage::Format::RGB8},
        // An error status is no failure: its body is the image.
        {servers.httpUrl("task-missing.png"), BitmapImage::Format::RGBA8},
    };
    for (const auto& sample : cases) {
        SCOPED_TRACE(sample.first);
        LoadImageTask task(sample.first, &host.domain());
        const auto texture = std::dynamic_pointer_cast<Texture>(load(task));
        ASSERT_NE(nullptr, texture);
        EXPECT_THAT(log.lines(), IsEmpty());
        const BitmapImage& image = texture->getImage();
        EXPECT_EQ(4u, image.getWidth());
        EXPECT_EQ(sample.second, image.getFormat());
        EXPECT_TRUE(image.isPremultiplied());
        EXPECT_EQ(2u, texture->getMemoryPolicy());
        EXPECT_EQ("", texture->getObjectName());
        EXPECT_EQ(&host.domain(), texture->getDomain());
    }
    for (const char* name : proxies) {
        unsetenv(name);
    }
}

TEST_F(LoadImageTaskTest, BodiesThatAreNoImageEndInANullResourceWithTheirMessages) {
    const auto failed = [](const std::string& url) {
        return "error tethrix: failed to create image " + url + " from stream.";
    };
    const auto unsupported = [](const std::string& url) {
        return "error tethrix: Loading image \"" + url + "\" failed due to unsupported image type";
    };
    const auto decoderError = [](const std::string& url) {
        return StartsWith("error tethrix: Error while trying to read " + url + ", reason: ");
    };
    const std::string html = servers.httpUrl("task-absent.png");
    const std::string empty = servers.httpUrl("task-empty.png");
    const std::string corrupt = servers.httpsUrl("task-corrupt.png");
    struct Case {
        const char* name;
        std::string url;
        std::vector<Matcher<std::string>> lines;
    } cases[] = {
        {"html error page", html, {unsupported(html), failed(html)}},
        {"empty body", empty, {failed(empty)}},
        {"png with a corrupt data chunk", corrupt, {decoderError(corrupt), failed(corrupt)}},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        log.clear();
        LoadImageTask task(sample.url, &host.domain());
        ::testing::internal::CaptureStderr();
        const auto result = load(task);
        EXPECT_THAT(::testing::internal::GetCapturedStderr(), IsEmpty());
        EXPECT_EQ(nullptr, result);
        EXPECT_THAT(log.lines(), ::testing::ElementsAreArray(sample.lines));
    }
}

TEST_F(LoadImageTaskTest, RefusedConnectionOrBodyWritesTheCurlLineAndFails) {
    servers.put("task-endless.png", std::string(17 * 1024 * 1024, 'x'));
    const std::string endless = servers.httpUrl("task-endless.png");
    LoadImageTask tooLong(endless, &host.domain());
    ::testing::internal::CaptureStderr();
    tooLong.loadFunction(nullptr);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr(curl_easy_strerror(CURLE_WRITE_ERROR)));
    tooLong.finishFunction(nullptr);
    EXPECT_EQ(nullptr, tooLong.getResult());
    EXPECT_THAT(log.lines(),
                ::testing::Contains("error tethrix: Image transfer refused: its body passed 16777216 bytes"));
    log.clear();

    const std::string url = servers.refusedUrl("cover.png");
    LoadImageTask task(url, &host.domain());

    ::testing::internal::CaptureStderr();
    task.loadFunction(nullptr);
    EXPECT_EQ(std::string("curl_easy_perform() failed on URL path: ") + curl_easy_strerror(CURLE_COULDNT_CONNECT) +
                  " " + url + " \n",
              ::testing::internal::GetCapturedStderr());
    task.finishFunction(nullptr);

    EXPECT_EQ(nullptr, task.getResult());
    EXPECT_THAT(log.lines(), ElementsAre("warning tethrix: Failed to load file: " + url,
                                         "error tethrix: failed to create image " + url + " from stream."));
}

TEST_F(LoadImageTaskTest, GetResultKeepsItsTextureAndRepeatsOnlyFailures) {
    LoadImageTask good(servers.httpUrl("task.png"), &host.domain());
    const auto first = load(good);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, good.getResult());
    EXPECT_THAT(log.lines(), IsEmpty());

    const std::string url = servers.httpUrl("task-empty.png");
    LoadImageTask empty(url, &host.domain());
    EXPECT_EQ(nullptr, load(empty));
    EXPECT_EQ(nullptr, empty.getResult());
    const std::string line = "error tethrix: failed to create image " + url + " from stream.";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

/// Loads `url` through the resource manager and runs the loop until the
/// completion arrives; gives what the manager then holds for it.
std::shared_ptr<Resource> acquire(testkit::TestHost& host, const std::string& url) {
    bool finished = false;
    host.domain().getResourceManager()->acquireResourcesAsync({url}, [&finished] { finished = true; });
    EXPECT_TRUE(host.loop().runUntil([&finished] { return finished; }, std::chrono::seconds(30)));
    return host.domain().getResourceManager()->acquireLoadedResource(url);
}

TEST_F(LoadImageTaskTest, HandlersForHttpThenHttpsAreRegisteredAndTheSchemeReachesThemInAnyCase) {
    registerSupportedProtocols(&host.domain());
    EXPECT_TRUE(host.domain().getResourceManager()->supportsProtocolHandler("https"));
    EXPECT_EQ(1, Context::instance(host.domain(), nullptr)->getContextValue(1, 0));

    // The scheme is compared as written; libcurl still knows it.
    const std::string url = "HTTP" + servers.httpUrl("task.png").substr(4);
    EXPECT_NE(nullptr, std::dynamic_pointer_cast<Texture>(acquire(host, url)));
    EXPECT_THAT(log.lines(),
                ElementsAre("info debug: Registering http protocol", "info debug: Registering https protocol",
                            "info debug: Loading image from: " + url + ".",
                            "warning tethrix: Unsupported protocol for file request: " + url));
}

std::shared_ptr<Texture> otherHandlersTexture;

std::int32_t otherHttpHandler(ResourceManager*, string_view, string_view, string_view, std::uint32_t, string_view,
                              void*, std::shared_ptr<Resource>& resource, std::shared_ptr<ResourceManager::LoadTask>&) {
    resource = otherHandlersTexture;
    return 0;
}

TEST_F(LoadImageTaskTest, ExistingHttpHandlerIsKept) {
    Texture::CreateInfo2D info(
        std::make_unique<BitmapImage>(1, 1, BitmapImage::Format::RGB8, std::vector<std::uint8_t>(3)));
    otherHandlersTexture = Texture::create(&host.domain(), info, "other");
    host.domain().getResourceManager()->registerProtocolHandler("http", &otherHttpHandler, nullptr, nullptr);

    registerSupportedProtocols(&host.domain());
    EXPECT_EQ(otherHandlersTexture, acquire(host, servers.httpUrl("task.png")));
    EXPECT_THAT(log.lines(), ElementsAre("info debug: Registering https protocol"));
    otherHandlersTexture.reset();
}

}  // namespace
}  // namespace zarvo
