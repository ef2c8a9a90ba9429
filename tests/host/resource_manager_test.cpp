#include <zarvo/domain.h>
#include <zarvo/image.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/resource_manager.h>
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/sample_images.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

namespace zarvo {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using Pixels = std::vector<std::uint8_t>;

// Real loader threads do the work, so the tests wait for the loop with a
// generous bound that only a hang would reach.
constexpr milliseconds patience(20000);

class Thing : public Resource {
public:
    using Resource::Resource;
    const Metaclass* getDynamicMetaclass() const override { return nullptr; }
    std::size_t getCPUMemoryUsageOverride() const override { return 1000; }
};

// What the test protocol handler sees and the tasks do, shared through the
// handler's user data.
struct Script {
    std::thread::id loopThread = std::this_thread::get_id();
    std::atomic<int> handlerCalls{0};
    std::atomic<int> stagesOnLoaderThreads{0};
    std::atomic<int> resultsOnLoop{0};
    std::atomic<int> followUps{0};
    std::shared_future<void> gate;  // tasks wait for it when valid
    std::promise<void> started;
    std::atomic<int> finishedStages{0};
};

class ScriptedTask : public ResourceManager::LoadTask {
public:
    ScriptedTask(Script& script, std::string url, Domain* domain)
        : script(script),
          url(std::move(url)),
          domain(domain) {}

    void loadFunction(const ResourceLoaderThreadContext* context) override {
        noteStage(context);
        if (url.find("blocking") != std::string::npos) {
            script.started.set_value();
            script.gate.wait();
        }
        if (url.find("throwing") != std::string::npos) {
            throw std::runtime_error("network unreachable");
        }
    }
    void finishFunction(const ResourceLoaderThreadContext* context) override {
        noteStage(context);
        ++script.finishedStages;
    }
    std::shared_ptr<Resource> getResult() override {
        if (std::this_thread::get_id() == script.loopThread) {
            ++script.resultsOnLoop;
        }
        if (url.find("empty") != std::string::npos) {
            return nullptr;
        }
        return std::make_shared<Thing>(domain, url);
    }

private:
    void noteStage(const ResourceLoaderThreadContext* context) {
        if (context != nullptr && std::this_thread::get_id() != script.loopThread) {
            ++script.stagesOnLoaderThreads;
        }
    }
    Script& script;
    std::string url;
    Domain* domain;
};

std::int32_t testHandler(ResourceManager* manager, string_view url, string_view, string_view, std::uint32_t,
                         string_view, void* userData, std::shared_ptr<Resource>& resource,
                         std::shared_ptr<ResourceManager::LoadTask>& task) {
    auto& script = *static_cast<Script*>(userData);
    ++script.handlerCalls;
    const std::string text(url.data(), url.size());
    if (text.find("handler-throws") != std::string::npos) {
        throw std::logic_error("handler broke");
    }
    if (text.find("instant") != std::string::npos) {
        resource = std::make_shared<Thing>(manager->getDomain(), text);
        return 0;
    }
    task = std::make_shared<ScriptedTask>(script, text, manager->getDomain());
    return 0;
}

class ResourceManagerTest : public testing::Test {
protected:
    void SetUp() override {
        manager().registerProtocolHandler(
            "test", &testHandler,
            [this](ResourceManager*, string_view, string_view, string_view, std::uint32_t, string_view, void*,
                   ResourceManager::LoadTask* task) {
                script.followUps += task != nullptr;
                return 0;
            },
            &script);
    }

    ResourceManager& manager() { return *host.domain().getResourceManager(); }

    // Requests `urls` and runs the loop until `finished` has come; gives
    // how often it came.
    int load(const std::unordered_set<std::string>& urls) {
        int finished = 0;
        manager().acquireResourcesAsync(urls, [&] { ++finished; });
        host.loop().runUntil([&] { return finished > 0; }, patience);
        host.runUntilIdle();
        return finished;
    }

    Script script;
    testkit::LogCapture log;
    testkit::TestHost host;
};

TEST_F(ResourceManagerTest, SchemesMatchWithoutRegardToCaseAndTasksRunOnLoaderThreadsAndCompleteOnTheLoop) {
    EXPECT_TRUE(manager().supportsProtocolHandler("TEST"));
    EXPECT_FALSE(manager().supportsProtocolHandler("http"));
    EXPECT_FALSE(manager().supportsProtocolHandler(nullptr));
    // Failures are logged and still count as done.
    EXPECT_EQ(
        load({"test://a", "TEST://b", "test://empty", "test://throwing", "test://handler-throws", "nohandler://x"}), 1);

    EXPECT_EQ(script.handlerCalls, 5);
    EXPECT_EQ(script.followUps, 4);
    EXPECT_EQ(script.stagesOnLoaderThreads, 7);
    EXPECT_EQ(script.resultsOnLoop, 3);
    auto a = manager().acquireLoadedResource("test://a");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->getObjectName(), "test://a");
    EXPECT_NE(manager().tryAcquireResource("TEST://b"), nullptr);
    EXPECT_EQ(manager().acquireLoadedResource("test://empty"), nullptr) << "a null result is not stored";
    EXPECT_EQ(manager().acquireLoadedResource("test://throwing"), nullptr);
    const auto error = [](const char* what) {
        return testing::AllOf(testing::StartsWith("error host: "), HasSubstr(what));
    };
    EXPECT_THAT(log.lines(), testing::UnorderedElementsAre(error("network unreachable"), error("handler broke"),
                                                           error("nohandler://x")));

    // Loaded URLs are not loaded again, and the caller still hears of the end
    // on the loop rather than inside the call.
    int finished = 0;
    manager().acquireResourcesAsync({"test://a"}, [&] { ++finished; });
    EXPECT_EQ(finished, 0);
    host.runUntilIdle();
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(script.handlerCalls, 5);
}

TEST_F(ResourceManagerTest, RequestsForOneUrlShareOneLoad) {
    std::promise<void> gate;
    script.gate = gate.get_future().share();
    int first = 0;
    int second = 0;
    manager().acquireResourcesAsync({"test://blocking"}, [&] { ++first; });
    manager().acquireResourcesAsync({"test://blocking", "test://instant"}, [&] { ++second; });
    script.started.get_future().wait();
    gate.set_value();
    host.loop().runUntil([&] { return first > 0 && second > 0; }, patience);

    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(script.handlerCalls, 2);
    EXPECT_NE(manager().acquireLoadedResource("test://instant"), nullptr);
}

TEST_F(ResourceManagerTest, LocalImagesAreRecognisedByContentAndOtherFilesRefused) {
    testkit::TemporaryDirectory directory;
    testkit::PngOptions rgba;
    rgba.colourType = PNG_COLOR_TYPE_RGB_ALPHA;
    const std::string image = directory.write("image.jpg", testkit::encodePng(2, 1, Pixels(8, 0x80), rgba));
    const std::string text = directory.write("text.png", "not an image");
    const std::string large = directory.write("large.png", std::string(2048, 'x'));
    const std::string fifo = directory.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ResourceManager::Limits limits = manager().getLimits();
    limits.maxFileBytes = 1024;
    manager().setLimits(limits);

    // Neither a FIFO without a writer nor a device without end holds a
    // loader thread; the name of an image does not matter.
    EXPECT_EQ(load({image, "file://" + image, text, fifo, "file:///dev/zero", large}), 1);
    for (const std::string& url : {image, "file://" + image}) {
        auto texture = std::dynamic_pointer_cast<Texture>(manager().acquireLoadedResource(url));
        ASSERT_NE(texture, nullptr) << url;
        EXPECT_EQ(texture->getImage().getWidth(), 2u);
        EXPECT_EQ(texture->getImage().getHeight(), 1u);
        EXPECT_TRUE(texture->getImage().isPremultiplied());
    }
    EXPECT_EQ(manager().acquireLoadedResource(text), nullptr);
    EXPECT_THAT(log.messages(LogLevel::Error),
                testing::UnorderedElementsAre(
                    HasSubstr("'" + text + "'"), "The file of resource '" + fifo + "' is not a regular file",
                    "The file of resource 'file:///dev/zero' is not a regular file",
                    "The file of resource '" + large + "' has 2048 bytes, more than the limit of 1024"));
}

TEST_F(ResourceManagerTest, RelativeUrlsAreLoadedFromTheServiceAndKeptUnderTheirOwnName) {
    testkit::ScriptedService service(host.domain());
    service.setResourceBaseUrl("test://files/");
    host.runUntilIdle();
    EXPECT_EQ(load({"covers/a.png", "/etc/passwd"}), 1);
    for (const char* url : {"covers/a.png", "/etc/passwd"}) {
        auto resource = manager().acquireLoadedResource(url);
        ASSERT_NE(resource, nullptr) << url;
        EXPECT_THAT(resource->getObjectName(), testing::StartsWith("test://files/")) << url;
    }
}

TEST_F(ResourceManagerTest, LoadedResourcesPastTheCacheBoundGoLeastRecentlyUsedFirst) {
    ResourceManager::Limits limits = manager().getLimits();
    limits.cacheBytes = 2500;  // two of the test's resources of 1000 bytes
    manager().setLimits(limits);
    load({"test://a"});
    load({"test://b"});
    EXPECT_NE(manager().acquireLoadedResource("test://a"), nullptr);  // now b is the older
    load({"test://c"});
    EXPECT_NE(manager().acquireLoadedResource("test://a"), nullptr);
    EXPECT_EQ(manager().acquireLoadedResource("test://b"), nullptr);
    EXPECT_NE(manager().acquireLoadedResource("test://c"), nullptr);
    EXPECT_EQ(manager().cachedBytes(), 2000u);

    // Registered resources are the host's and never go; a smaller bound
    // evicts at once.
    manager().registerResource("Images/kept", std::make_shared<Thing>(&host.domain(), "kept"));
    limits.cacheBytes = 0;
    manager().setLimits(limits);
    EXPECT_EQ(manager().cachedBytes(), 0u);
    EXPECT_EQ(manager().acquireLoadedResource("test://a"), nullptr);
    EXPECT_NE(manager().acquireLoadedResource("Images/kept"), nullptr);
}

TEST_F(ResourceManagerTest, ALoadPastItsTimeLimitIsGivenUpAndLaterLoadsDoNotWaitForIt) {
    ResourceManager::Limits limits = manager().getLimits();
    limits.loadTimeout = milliseconds(500);
    manager().setLimits(limits);
    std::promise<void> gate;
    script.gate = gate.get_future().share();
    int finished = 0;
    manager().acquireResourcesAsync({"test://blocking"}, [&] { ++finished; });
    script.started.get_future().wait();
    host.runUntilIdle();  // the loader has told the loop that the load runs
    host.advance(milliseconds(499));
    EXPECT_EQ(finished, 0);
    host.advance(milliseconds(1));
    EXPECT_EQ(finished, 1);
    EXPECT_THAT(log.messages(LogLevel::Error),
                testing::ElementsAre(HasSubstr("'test://blocking' did not finish within 500 ms")));

    // Both loader threads serve other loads while the given-up one runs.
    EXPECT_EQ(load({"test://a", "test://b"}), 1);
    EXPECT_NE(manager().acquireLoadedResource("test://b"), nullptr);

    // When it ends at last, its result is dropped.
    gate.set_value();
    EXPECT_TRUE(host.loop().runUntil([&] { return script.finishedStages == 3; }, patience));
    host.runUntilIdle();
    EXPECT_EQ(manager().acquireLoadedResource("test://blocking"), nullptr);
    EXPECT_EQ(manager().pendingLoadCount(), 0u);
}

TEST(ResourceManagerLifetimeTest, ALoadOutlivingItsManagerIsAbandonedSafely) {
    Script script;
    auto loop = std::make_shared<ZvuMessageDispatcher>(ZvuMessageDispatcher::Clock::Manual);
    auto domain = std::make_unique<Domain>(loop);
    domain->getResourceManager()->registerProtocolHandler("test", &testHandler, nullptr, &script);

    std::promise<void> gate;
    script.gate = gate.get_future().share();
    bool finished = false;
    domain->getResourceManager()->acquireResourcesAsync({"test://blocking"}, [&] { finished = true; });
    script.started.get_future().wait();
    // Let the task end while the domain goes: its completion may reach the
    // loop before or after the manager has gone, and must then be dropped.
    std::thread opener([&] { gate.set_value(); });
    domain.reset();
    opener.join();
    loop->runUntilIdle();
    EXPECT_FALSE(finished);
}

}  // namespace
}  // namespace zarvo
