#include <zarvo/resource_manager.h>

#include <zarvo/domain.h>
#include <zarvo/image.h>
#include <zarvo/log.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/resource.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <exception>
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

/// What a loader thread gets of a load: no request, so that nothing a
/// requester holds can be released on a loader thread.
struct ResourceManager::Job {
    std::string url;
    std::shared_ptr<LoadTask> task;
    bool failed = false;  // written on the loader thread before the result is posted
};

/// One URL being loaded, shared by every request that waits for it. Loop
/// thread only.
struct ResourceManager::PendingLoad {
    std::shared_ptr<Job> job;
    std::vector<std::shared_ptr<Request>> requests;
    std::shared_ptr<void> deadline;
};

struct ResourceManager::LoaderPool {
    struct Loader {
        std::thread thread;
        std::shared_ptr<Job> running;  // under the mutex
        bool abandoned = false;        // under the mutex
    };

    ResourceManager* manager = nullptr;  // loop thread only; null once the manager is gone
    ZvuMessageDispatcher* dispatcher = nullptr;

    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;  // a loader finished a job
    std::deque<std::shared_ptr<Job>> queue;
    bool stopping = false;
    // The loaders not given up on; changed on the loop's thread, under the mutex.
    std::vector<std::shared_ptr<Loader>> loaders;
    // Loaders given up on whose job still runs.
    std::size_t abandonedRunning = 0;

    /// Hands `work` to the loop unless the manager is going. Called with
    /// the mutex held, so that the destructor, once it has set `stopping`,
    /// knows that nothing more reaches the dispatcher.
    template <typename Work>
    void postLocked(const std::shared_ptr<LoaderPool>& self, Work work) {
        if (stopping || dispatcher == nullptr) {
            return;
        }
        std::weak_ptr<LoaderPool> weakPool = self;
        dispatcher->post([weakPool, work = std::move(work)]() mutable {
            auto alive = weakPool.lock();
            if (alive && alive->manager != nullptr) {
                work(*alive->manager);
            }
        });
    }
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
    return data.size() >= sizeof signature &&
           std::equal(signature, signature + sizeof signature, data.begin(),
                      [](unsigned char a, char b) { return a == static_cast<unsigned char>(b); });
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
    LocalImageLoadTask(std::string url, std::string path, Domain* domain, ZvcMemoryManager* memoryManager,
                       std::uint64_t maxBytes)
        : url(std::move(url)),
          path(std::move(path)),
          domain(domain),
          memoryManager(memoryManager),
          maxBytes(maxBytes) {}

    void loadFunction(const ResourceLoaderThreadContext*) override {
        // Without O_NONBLOCK, opening a FIFO waits for a writer; with it,
        // the open returns and the check below refuses the FIFO.
        const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (descriptor < 0) {
            ZARVO_LOG_ERROR("host", "Could not open the file of resource '{}'", url);
            return;
        }
        readOk = readFile(descriptor);
        ::close(descriptor);
        if (!readOk) {
            data.clear();
        }
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
    /// Reads a regular file of at most maxBytes; a device, a FIFO or a
    /// socket would give bytes without end or never.
    bool readFile(int descriptor) {
        struct stat status {};
        if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
            ZARVO_LOG_ERROR("host", "The file of resource '{}' is not a regular file", url);
            return false;
        }
        if (static_cast<std::uint64_t>(status.st_size) > maxBytes) {
            ZARVO_LOG_ERROR("host", "The file of resource '{}' has {} bytes, more than the limit of {}", url,
                            static_cast<std::uint64_t>(status.st_size), maxBytes);
            return false;
        }
        data.resize(static_cast<std::size_t>(status.st_size));
        std::size_t got = 0;
        // One byte more than the size, to notice a file that grew.
        char extra = 0;
        for (;;) {
            char* into = got < data.size() ? &data[got] : &extra;
            const std::size_t wanted = got < data.size() ? data.size() - got : 1;
            const ssize_t count = ::read(descriptor, into, wanted);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0) {
                ZARVO_LOG_ERROR("host", "Could not read the file of resource '{}'", url);
                return false;
            }
            if (count == 0) {
                data.resize(got);
                return true;
            }
            if (into == &extra) {
                ZARVO_LOG_ERROR("host", "The file of resource '{}' grew while it was read", url);
                return false;
            }
            got += static_cast<std::size_t>(count);
        }
    }

    const std::string url;
    const std::string path;
    Domain* const domain;
    ZvcMemoryManager* const memoryManager;
    const std::uint64_t maxBytes;
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
    std::deque<std::shared_ptr<Job>> abandoned;
    std::vector<std::shared_ptr<LoaderPool::Loader>> loaders;
    {
        std::unique_lock<std::mutex> lock(pool->mutex);
        pool->stopping = true;
        abandoned.swap(pool->queue);
        pool->wake.notify_all();
        // A running load cannot be cancelled; it gets a while to end.
        pool->idle.wait_for(lock, limits.shutdownWait, [this] {
            return std::none_of(pool->loaders.begin(), pool->loaders.end(),
                                [](const auto& loader) { return loader->running != nullptr; });
        });
        loaders.swap(pool->loaders);
    }
    for (auto& loader : loaders) {
        std::string stillRunning;
        {
            std::lock_guard<std::mutex> lock(pool->mutex);
            if (loader->running) {
                stillRunning = loader->running->url;
            }
        }
        if (stillRunning.empty()) {
            loader->thread.join();
            continue;
        }
        ZARVO_LOG_WARNING("host", "Loading resource '{}' is still running after {} ms; it is left to end on its own",
                          stillRunning, limits.shutdownWait.count());
        loader->thread.detach();
    }
    // What the queued loads and their requests hold goes here, on the loop's
    // thread, and not on a loader thread.
    abandoned.clear();
    for (auto& entry : pending) {
        if (pool->dispatcher != nullptr) {
            pool->dispatcher->removeTimer(entry.second->deadline);
        }
    }
    pending.clear();
}

void ResourceManager::setLimits(const Limits& newLimits) {
    limits = newLimits;
    evict(std::string());
}

void ResourceManager::setUrlResolver(UrlResolver resolver) {
    urlResolver = std::move(resolver);
}

std::shared_ptr<Resource> ResourceManager::tryAcquireResource(string_view url) {
    auto found = resources.find(url);
    if (found == resources.end()) {
        return nullptr;
    }
    touch(url);
    return found->second;
}

std::shared_ptr<Resource> ResourceManager::acquireLoadedResource(string_view url) const {
    auto found = resources.find(url);
    if (found == resources.end()) {
        return nullptr;
    }
    touch(url);
    return found->second;
}

void ResourceManager::registerResource(const std::string& name, std::shared_ptr<Resource> resource) {
    if (!resource) {
        unregisterResource(name);
        return;
    }
    // A resource registered by the host is its to keep, never evicted.
    forget(name);
    resources[name] = std::move(resource);
}

void ResourceManager::unregisterResource(const std::string& name) {
    forget(name);
    resources.erase(name);
}

void ResourceManager::touch(string_view url) const {
    auto entry = cached.find(url);
    if (entry != cached.end()) {
        recentUse.splice(recentUse.begin(), recentUse, entry->second.use);
    }
}

void ResourceManager::cache(const std::string& url, const std::shared_ptr<Resource>& resource) {
    forget(url);
    const std::size_t bytes = resource->getCPUMemoryUsage();
    recentUse.push_front(url);
    cached.emplace(url, CacheEntry{bytes, recentUse.begin()});
    cacheBytesUsed += bytes;
    evict(url);
}

void ResourceManager::forget(const std::string& url) {
    auto entry = cached.find(url);
    if (entry == cached.end()) {
        return;
    }
    cacheBytesUsed -= entry->second.bytes;
    recentUse.erase(entry->second.use);
    cached.erase(entry);
}

void ResourceManager::evict(const std::string& keep) {
    // The resource just loaded stays even if it alone passes the bound:
    // whoever asked for it is about to take it.
    while (cacheBytesUsed > limits.cacheBytes && !recentUse.empty() && recentUse.back() != keep) {
        const std::string url = recentUse.back();
        forget(url);
        resources.erase(url);
    }
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
            touch(url);
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
        resources[url] = resource;
        cache(url, resource);
        return;
    }
    if (!task) {
        ZARVO_LOG_ERROR("host", "The protocol handler gave neither a resource nor a load task for '{}'", url);
        return;
    }
    auto load = std::make_shared<PendingLoad>();
    load->job = std::make_shared<Job>();
    load->job->url = url;
    load->job->task = std::move(task);
    load->requests.push_back(request);
    ++request->remaining;
    pending[url] = load;
    enqueue(load);
}

bool ResourceManager::resolveUrl(const std::string& url, std::shared_ptr<Resource>& resource,
                                 std::shared_ptr<LoadTask>& task) {
    std::string target = url;
    if (urlResolver) {
        try {
            std::string resolved = urlResolver(url);
            if (!resolved.empty()) {
                target = std::move(resolved);
            }
        } catch (const std::exception& exception) {
            ZARVO_LOG_ERROR("host", "Resolving the URL of resource '{}' failed: {}", url, exception.what());
            return false;
        }
    }
    const auto schemeEnd = target.find("://");
    const std::string scheme = schemeEnd == std::string::npos ? std::string() : toLower(target.substr(0, schemeEnd));
    if (scheme.empty() || scheme == "file") {
        std::string path = scheme.empty() ? target : target.substr(schemeEnd + 3);
        task =
            std::make_shared<LocalImageLoadTask>(url, std::move(path), domain, getMemoryManager(), limits.maxFileBytes);
        return true;
    }

    auto entry = protocols.find(scheme);
    if (entry == protocols.end()) {
        ZARVO_LOG_ERROR("host", "No protocol handler for the scheme '{}' of resource '{}'", scheme, target);
        return false;
    }
    const ProtocolEntry& protocol = entry->second;
    try {
        const std::int32_t code = protocol.handler(this, target, string_view(), string_view(), 0, string_view(),
                                                   protocol.userData, resource, task);
        if (code != 0) {
            ZARVO_LOG_ERROR("host", "The protocol handler for '{}' failed with code {}", target, code);
            return false;
        }
        if (task && protocol.function) {
            protocol.function(this, target, string_view(), string_view(), 0, string_view(), protocol.userData,
                              task.get());
        }
    } catch (const std::exception& exception) {
        ZARVO_LOG_ERROR("host", "The protocol handler for '{}' failed: {}", target, exception.what());
        return false;
    } catch (...) {
        ZARVO_LOG_ERROR("host", "The protocol handler for '{}' failed with an exception of unknown type", target);
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
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(pool->mutex);
        if (pool->queue.size() < limits.maxQueuedLoads) {
            pool->queue.push_back(load->job);
            queued = true;
        }
    }
    if (!queued) {
        ZARVO_LOG_ERROR("host", "Loading resource '{}' refused: {} loads are waiting already, the limit",
                        load->job->url, limits.maxQueuedLoads);
        finishLoad(load->job->url, nullptr);
        return;
    }
    pool->wake.notify_one();
    replaceLoaders();
}

void ResourceManager::replaceLoaders() {
    std::shared_ptr<LoaderPool> loaders = pool;
    std::vector<std::string> starved;
    {
        std::lock_guard<std::mutex> lock(loaders->mutex);
        while (loaders->loaders.size() < loaderThreadCount &&
               loaders->loaders.size() + loaders->abandonedRunning < loaderThreadCount + limits.maxAbandonedLoaders) {
            auto loader = std::make_shared<LoaderPool::Loader>();
            const std::size_t index = loaders->loaders.size();
            // The thread holds the pool and its own record, as it may outlive
            // the manager when it is given up on.
            loader->thread = std::thread([loaders, loader, index] {
                const ResourceLoaderThreadContext context(index);
                for (;;) {
                    std::shared_ptr<Job> job;
                    {
                        std::unique_lock<std::mutex> lock(loaders->mutex);
                        loaders->wake.wait(lock, [&] { return loaders->stopping || !loaders->queue.empty(); });
                        if (loaders->stopping) {
                            return;
                        }
                        job = std::move(loaders->queue.front());
                        loaders->queue.pop_front();
                        loader->running = job;
                        loaders->postLocked(loaders, [job](ResourceManager& manager) { manager.startDeadline(job); });
                    }
                    runStages(*job->task, job->url, job->failed, context);
                    std::lock_guard<std::mutex> lock(loaders->mutex);
                    loader->running.reset();
                    loaders->idle.notify_all();
                    if (loader->abandoned) {
                        // Given up on: the result goes, and so does the
                        // thread; another may now take a place.
                        --loaders->abandonedRunning;
                        loaders->postLocked(loaders, [](ResourceManager& manager) { manager.replaceLoaders(); });
                        return;
                    }
                    // The job moves into the posted work, so that the last
                    // reference to its task goes on the loop's thread.
                    loaders->postLocked(
                        loaders, [job = std::move(job)](ResourceManager& manager) { manager.completeLoad(job); });
                }
            });
            loaders->loaders.push_back(std::move(loader));
        }
        if (loaders->loaders.empty()) {
            for (const auto& job : loaders->queue) {
                starved.push_back(job->url);
            }
            loaders->queue.clear();
        }
    }
    for (const std::string& url : starved) {
        ZARVO_LOG_ERROR("host",
                        "Loading resource '{}' refused: every loader thread is held by a load that was given up", url);
        finishLoad(url, nullptr);
    }
}

void ResourceManager::startDeadline(const std::shared_ptr<Job>& job) {
    auto entry = pending.find(job->url);
    if (entry == pending.end() || entry->second->job != job || pool->dispatcher == nullptr) {
        return;  // complete already
    }
    std::weak_ptr<LoaderPool> weakPool = pool;
    entry->second->deadline =
        pool->dispatcher->addTimer(limits.loadTimeout, ZvuTimerMessageModeSingleShot, [weakPool, job](const auto&) {
            auto alive = weakPool.lock();
            if (alive && alive->manager != nullptr) {
                alive->manager->giveUp(job);
            }
        });
}

void ResourceManager::giveUp(const std::shared_ptr<Job>& job) {
    auto entry = pending.find(job->url);
    if (entry == pending.end() || entry->second->job != job) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(pool->mutex);
        auto& loaders = pool->loaders;
        auto running =
            std::find_if(loaders.begin(), loaders.end(), [&job](const auto& loader) { return loader->running == job; });
        if (running == loaders.end()) {
            return;  // it has just ended; its result is on the way
        }
        (*running)->abandoned = true;
        (*running)->thread.detach();
        loaders.erase(running);
        ++pool->abandonedRunning;
    }
    ZARVO_LOG_ERROR("host",
                    "Loading resource '{}' did not finish within {} ms; it is given up and its loader thread left to "
                    "end on its own",
                    job->url, limits.loadTimeout.count());
    finishLoad(job->url, nullptr);
    replaceLoaders();
}

void ResourceManager::completeLoad(const std::shared_ptr<Job>& job) {
    auto entry = pending.find(job->url);
    if (entry == pending.end() || entry->second->job != job) {
        return;  // given up on
    }
    std::shared_ptr<Resource> result;
    if (!job->failed) {
        try {
            result = job->task->getResult();
        } catch (const std::exception& exception) {
            ZARVO_LOG_ERROR("host", "Loading resource '{}' failed: {}", job->url, exception.what());
        } catch (...) {
            ZARVO_LOG_ERROR("host", "Loading resource '{}' failed with an exception of unknown type", job->url);
        }
    }
    job->task.reset();
    finishLoad(job->url, std::move(result));
}

void ResourceManager::finishLoad(const std::string& url, std::shared_ptr<Resource> result) {
    auto entry = pending.find(url);
    if (entry == pending.end()) {
        return;
    }
    const std::shared_ptr<PendingLoad> load = entry->second;
    pending.erase(entry);
    if (pool->dispatcher != nullptr) {
        pool->dispatcher->removeTimer(load->deadline);
    }
    if (result) {
        resources[url] = result;
        cache(url, result);
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
