#include <zarvo/resource_manager.h>

#include <zarvo/domain.h>
#include <zarvo/image.h>
#include <zarvo/log.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/resource.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <deque>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zarvo {

/// What a load task is told on a loader thread: which thread it runs on.
class ResourceLoaderThreadContext {
public:
    explicit ResourceLoaderThreadContext(std::size_t threadIndex) : threadIndex(threadIndex) {}
    const std::size_t threadIndex;
};

ResourceManager::LoadTask::~LoadTask() = default;

/// One acquireResourcesAsync() call: `finished` runs when `remaining` drops to 0.
struct ResourceManager::Request {
    std::function<void()> finished;
    std::size_t remaining = 0;
};

/// One URL being loaded, shared by every request that waits for it.
struct ResourceManager::PendingLoad {
    std::string url;
    std::shared_ptr<LoadTask> task;
    std::vector<std::shared_ptr<Request>> requests;
    bool failed = false;  // written on the loader thread before the result is posted
};

struct ResourceManager::LoaderPool {
    ResourceManager* manager = nullptr;  // loop thread only; null once the manager is gone
    ZvuMessageDispatcher* dispatcher = nullptr;

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::shared_ptr<PendingLoad>> queue;
    bool stopping = false;
    std::vector<std::thread> threads;
};

namespace {

// Image decoding is the slow part of a load; two threads keep the loop's
// machine responsive while still overlapping a download with a decode.
constexpr std::size_t loaderThreadCount = 2;

std::string toLower(string_view text) {
    std::string lower(text.data(), text.size());
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

bool isPng(const std::string& data) {
    static const unsigned char signature[8] = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
    return data.size() >= sizeof signature && std::equal(signature, signature + sizeof signature, data.begin(),
                                                         [](unsigned char a, char b) {
                                                             return a == static_cast<unsigned char>(b);
                                                         });
}

bool isJpeg(const std::string& data) {
    return data.size() >= 2 && static_cast<unsigned char>(data[0]) == 0xFF &&
           static_cast<unsigned char>(data[1]) == 0xD8;
}

/// Loads a PNG or JPEG file from the local file system into a Texture named
/// after its URL: reading and decoding on the loader thread, the texture on
/// the loop's.
class LocalImageLoadTask : public ResourceManager::LoadTask {
public:
    LocalImageLoadTask(std::string url, std::string path, Domain* domain, ZvcMemoryManager* memoryManager)
        : url(std::move(url)), path(std::move(path)), domain(domain), memoryManager(memoryManager) {}

    void loadFunction(const ResourceLoaderThreadContext*) override {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            ZARVO_LOG_ERROR("host", "Could not open the file of resource '{}'", url);
            return;
        }
        data.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        if (file.bad()) {
            ZARVO_LOG_ERROR("host", "Could not read the file of resource '{}'", url);
            data.clear();
            return;
        }
        readOk = true;
    }

    void finishFunction(const ResourceLoaderThreadContext*) override {
        if (!readOk) {
            return;
        }
        const bool png = isPng(data);
        if (!png && !isJpeg(data)) {
            ZARVO_LOG_ERROR("host", "Resource '{}' is neither a PNG nor a JPEG image", url);
            return;
        }
        if (data.size() > std::numeric_limits<std::uint32_t>::max()) {
            ZARVO_LOG_ERROR("host", "Resource '{}' is too large to decode", url);
            return;
        }
        ZvcInputStream* rawStream = nullptr;
        if (zvcInputStreamCreateFromMemory(memoryManager, data.data(), static_cast<std::uint32_t>(data.size()), 0,
                                           &rawStream) != 0 ||
            rawStream == nullptr) {
            ZARVO_LOG_ERROR("host", "Could not open a stream over resource '{}'", url);
            return;
        }
        std::unique_ptr<ZvcInputStream, void (*)(ZvcInputStream*)> stream(rawStream, &zvcInputStreamDelete);
        try {
            image = png ? imageLoadPNG(stream.get(), url) : imageLoadJPEG(stream.get(), url);
        } catch (const std::exception& exception) {
            ZARVO_LOG_ERROR("host", "Could not decode resource '{}': {}", url, exception.what());
            image.reset();
        }
        if (!image) {
            return;
        }
        data.clear();
        data.shrink_to_fit();
    }

    std::shared_ptr<Resource> getResult() override {
        if (texture || !image) {
            return texture;
        }
        image->premultiplyAlpha();
        Texture::CreateInfo2D createInfo(std::move(image));
        texture = Texture::create(domain, createInfo, url);
        return texture;
    }

private:
    const std::string url;
    const std::string path;
    Domain* const domain;
    ZvcMemoryManager* const memoryManager;
    std::string data;
    bool readOk = false;
    std::unique_ptr<BitmapImage> image;
    std::shared_ptr<Texture> texture;
};

}  // namespace

ResourceManager::ResourceManager(Domain* domain) : domain(domain), pool(std::make_shared<LoaderPool>()) {
    pool->manager = this;
    pool->dispatcher = domain != nullptr ? domain->getMessageDispatcher() : nullptr;
}

ResourceManager::~ResourceManager() {
    pool->manager = nullptr;
    std::deque<std::shared_ptr<PendingLoad>> abandoned;
    {
        std::lock_guard<std::mutex> lock(pool->mutex);
        pool->stopping = true;
        abandoned.swap(pool->queue);
    }
    pool->wake.notify_all();
    // A load that is running goes to its end: nothing can cancel a task.
    for (auto& thread : pool->threads) {
        thread.join();
    }
    // What the queued loads and their requests hold goes here, on the loop's
    // thread, and not on a loader thread.
    abandoned.clear();
    pending.clear();
}

std::shared_ptr<Resource> ResourceManager::tryAcquireResource(string_view url) {
    auto found = resources.find(url);
    return found != resources.end() ? found->second : nullptr;
}

std::shared_ptr<Resource> ResourceManager::acquireLoadedResource(string_view url) const {
    auto found = resources.find(url);
    return found != resources.end() ? found->second : nullptr;
}

void ResourceManager::registerResource(const std::string& name, std::shared_ptr<Resource> resource) {
    if (!resource) {
        unregisterResource(name);
        return;
    }
    resources[name] = std::move(resource);
}

void ResourceManager::unregisterResource(const std::string& name) {
    resources.erase(name);
}

void ResourceManager::registerProtocolHandler(const char* protocol, ProtocolHandler handler,
                                              ProtocolHandlerFunction function, void* userData) {
    if (protocol == nullptr || handler == nullptr) {
        return;
    }
    protocols[toLower(protocol)] = ProtocolEntry{handler, std::move(function), userData};
}

bool ResourceManager::supportsProtocolHandler(const char* protocol) const {
    return protocol != nullptr && protocols.find(toLower(protocol)) != protocols.end();
}

ZvcMemoryManager* ResourceManager::getMemoryManager() const {
    // This engine allocates from the heap; one handle stands for it.
    static ZvcMemoryManager heap;
    return &heap;
}

std::shared_ptr<void> ResourceManager::acquireResourcesAsync(const std::unordered_set<std::string>& urls,
                                                             std::function<void()> finished) {
    auto request = std::make_shared<Request>();
    request->finished = std::move(finished);
    if (pool->dispatcher == nullptr) {
        ZARVO_LOG_ERROR("host", "Cannot load resources without a message loop");
        finishRequest(request);
        return request;
    }

    // Held at one while the URLs are handed out, so that no load can finish
    // the request before all of them are counted.
    request->remaining = 1;
    for (const std::string& url : urls) {
        if (resources.find(url) != resources.end()) {
            continue;
        }
        auto running = pending.find(url);
        if (running != pending.end()) {
            running->second->requests.push_back(request);
            ++request->remaining;
            continue;
        }
        startLoad(url, request);
    }
    if (--request->remaining == 0) {
        // Every URL is in already; the caller still hears of it on the loop,
        // never from inside this call.
        std::weak_ptr<LoaderPool> weakPool = pool;
        pool->dispatcher->post([weakPool, request] {
            auto alive = weakPool.lock();
            if (alive && alive->manager != nullptr) {
                alive->manager->finishRequest(request);
            }
        });
    }
    return request;
}

void ResourceManager::startLoad(const std::string& url, const std::shared_ptr<Request>& request) {
    std::shared_ptr<Resource> resource;
    std::shared_ptr<LoadTask> task;
    if (!resolveUrl(url, resource, task)) {
        return;  // failed, and logged; nothing to wait for
    }
    if (resource) {
        resources[url] = std::move(resource);
        return;
    }
    if (!task) {
        ZARVO_LOG_ERROR("host", "The protocol handler gave neither a resource nor a load task for '{}'", url);
        return;
    }
    auto load = std::make_shared<PendingLoad>();
    load->url = url;
    load->task = std::move(task);
    load->requests.push_back(request);
    ++request->remaining;
    pending[url] = load;
    enqueue(load);
}

bool ResourceManager::resolveUrl(const std::string& url, std::shared_ptr<Resource>& resource,
                                 std::shared_ptr<LoadTask>& task) {
    const auto schemeEnd = url.find("://");
    const std::string scheme = schemeEnd == std::string::npos ? std::string() : toLower(url.substr(0, schemeEnd));
    if (scheme.empty() || scheme == "file") {
        std::string path = scheme.empty() ? url : url.substr(schemeEnd + 3);
        task = std::make_shared<LocalImageLoadTask>(url, std::move(path), domain, getMemoryManager());
        return true;
    }

    auto entry = protocols.find(scheme);
    if (entry == protocols.end()) {
        ZARVO_LOG_ERROR("host", "No protocol handler for the scheme '{}' of resource '{}'", scheme, url);
        return false;
    }
    const ProtocolEntry& protocol = entry->second;
    try {
        const std::int32_t code = protocol.handler(this, url, string_view(), string_view(), 0, string_view(),
                                                   protocol.userData, resource, task);
        if (code != 0) {
            ZARVO_LOG_ERROR("host", "The protocol handler for '{}' failed with code {}", url, code);
            return false;
        }
        if (task && protocol.function) {
            protocol.function(this, url, string_view(), string_view(), 0, string_view(), protocol.userData,
                              task.get());
        }
    } catch (const std::exception& exception) {
        ZARVO_LOG_ERROR("host", "The protocol handler for '{}' failed: {}", url, exception.what());
        return false;
    } catch (...) {
        ZARVO_LOG_ERROR("host", "The protocol handler for '{}' failed with an exception of unknown type", url);
        return false;
    }
    return true;
}

namespace {

// Runs both stages of a task; an exception ends the load as failed.
void runStages(ResourceManager::LoadTask& task, const std::string& url, bool& failed,
               const ResourceLoaderThreadContext& context) {
    try {
        task.loadFunction(&context);
        task.finishFunction(&context);
    } catch (const std::exception& exception) {
        ZARVO_LOG_ERROR("host", "Loading resource '{}' failed: {}", url, exception.what());
        failed = true;
    } catch (...) {
        ZARVO_LOG_ERROR("host", "Loading resource '{}' failed with an exception of unknown type", url);
        failed = true;
    }
}

}  // namespace

void ResourceManager::enqueue(const std::shared_ptr<PendingLoad>& load) {
    {
        std::lock_guard<std::mutex> lock(pool->mutex);
        pool->queue.push_back(load);
    }
    pool->wake.notify_one();
    if (!pool->threads.empty()) {
        return;
    }

    std::weak_ptr<LoaderPool> weakPool = pool;
    LoaderPool* loaders = pool.get();
    for (std::size_t index = 0; index < loaderThreadCount; ++index) {
        // The threads use the pool through a plain pointer: the manager joins
        // them before the pool can go.
        loaders->threads.emplace_back([weakPool, loaders, index] {
            const ResourceLoaderThreadContext context(index);
            for (;;) {
                std::shared_ptr<PendingLoad> next;
                {
                    std::unique_lock<std::mutex> lock(loaders->mutex);
                    loaders->wake.wait(lock, [loaders] { return loaders->stopping || !loaders->queue.empty(); });
                    if (loaders->stopping) {
                        return;
                    }
                    next = std::move(loaders->queue.front());
                    loaders->queue.pop_front();
                }
                runStages(*next->task, next->url, next->failed, context);
                // The load moves into the posted work, so that the last
                // reference to it (and to whatever its requests hold) goes on
                // the loop's thread.
                loaders->dispatcher->post([weakPool, load = std::move(next)] {
                    auto alive = weakPool.lock();
                    if (alive && alive->manager != nullptr) {
                        alive->manager->completeLoad(load);
                    }
                });
            }
        });
    }
}

void ResourceManager::completeLoad(const std::shared_ptr<PendingLoad>& load) {
    auto entry = pending.find(load->url);
    if (entry != pending.end() && entry->second == load) {
        pending.erase(entry);
    }

    std::shared_ptr<Resource> result;
    if (!load->failed) {
        try {
            result = load->task->getResult();
        } catch (const std::exception& exception) {
            ZARVO_LOG_ERROR("host", "Loading resource '{}' failed: {}", load->url, exception.what());
        } catch (...) {
            ZARVO_LOG_ERROR("host", "Loading resource '{}' failed with an exception of unknown type", load->url);
        }
    }
    load->task.reset();
    if (result) {
        resources[load->url] = std::move(result);
    }

    const auto requests = std::move(load->requests);
    for (const auto& request : requests) {
        if (--request->remaining == 0) {
            finishRequest(request);
        }
    }
}

void ResourceManager::finishRequest(const std::shared_ptr<Request>& request) {
    if (!request->finished) {
        return;
    }
    // The callback runs once; a throw from it must not keep the other
    // requests of the same load from hearing of their end.
    auto finished = std::move(request->finished);
    request->finished = nullptr;
    try {
        finished();
    } catch (const std::exception& exception) {
        ZARVO_LOG_ERROR("host", "A resource completion callback failed: {}", exception.what());
    } catch (...) {
        ZARVO_LOG_ERROR("host", "A resource completion callback failed with an exception of unknown type");
    }
}

}  // namespace zarvo
