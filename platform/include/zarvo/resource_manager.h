// The resource manager: resources by name, loading in the background, and
// handlers for URL schemes.
//
// Threads: every operation is called on the loop's thread. A load task's
// loadFunction and finishFunction run on a resource loader thread; its
// getResult and every completion callback run on the loop's thread.
//
// URLs: the text before "://" is the scheme (compared without regard to
// case), which picks the protocol handler. A URL without a scheme, or with
// "file://", is a path of a local PNG or JPEG file, recognised by content and
// loaded as a Texture; only a regular file is read, up to a size. A URL
// resolver, when one is set, may first turn a URL into another (the service
// client turns a relative path into a URL of the service's files). A loaded
// resource is kept under the URL asked for, in a cache bounded by bytes.
//
// Bounds (see Limits and docs/limits.md): a load that runs too long is given
// up and its requests finish without the resource; the loader thread that
// runs it is left to end on its own and a new one takes its place, so later
// loads do not queue behind it, and destruction does not wait for it.
#ifndef ZARVO_RESOURCE_MANAGER_H
#define ZARVO_RESOURCE_MANAGER_H

#include <zarvo/string_view.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>

namespace zarvo {

class Domain;
class Resource;
class ResourceLoaderThreadContext;
class ZvcMemoryManager;

class ResourceManager {
public:
    /// One background load: loadFunction and finishFunction on a loader
    /// thread, one after the other; getResult last, on the loop's thread.
    class LoadTask {
    public:
        virtual ~LoadTask();
        virtual void loadFunction(const ResourceLoaderThreadContext* context) = 0;
        virtual void finishFunction(const ResourceLoaderThreadContext* context) = 0;
        /// The resource made, or null if the load failed.
        virtual std::shared_ptr<Resource> getResult() = 0;
    };

    /// Answers a request for a URL of its scheme: either a resource at once
    /// (`resource`) or a task that makes it (`task`). Arguments: manager, URL,
    /// base path, resource type, flags, locale, user data, and the two outs.
    using ProtocolHandler = std::int32_t (*)(ResourceManager* manager, string_view url, string_view basePath,
                                             string_view resourceType, std::uint32_t flags, string_view locale,
                                             void* userData, std::shared_ptr<Resource>& resource,
                                             std::shared_ptr<LoadTask>& task);
    /// Optional follow-up of a handler, given the task it made.
    using ProtocolHandlerFunction = std::function<std::int32_t(ResourceManager*, string_view, string_view, string_view,
                                                               std::uint32_t, string_view, void*, LoadTask*)>;

    /// Host side: the bounds of loading and of the cache.
    struct Limits {
        /// A load running longer is given up (see above).
        std::chrono::milliseconds loadTimeout{30000};
        /// Loader threads given up on and still running; while this many
        /// are, none of them is replaced, and with no thread left a load
        /// fails at once.
        std::size_t maxAbandonedLoaders = 4;
        /// Loads waiting for a loader thread; one more fails at once.
        std::size_t maxQueuedLoads = 1024;
        /// How long destruction waits for running loads before it leaves
        /// them to end on their own.
        std::chrono::milliseconds shutdownWait{1000};
        /// Bytes of loaded resources kept for reuse; past it the least
        /// recently used go, to be loaded again when asked for.
        std::size_t cacheBytes = std::size_t(64) << 20;
        /// Bytes of one local file.
        std::uint64_t maxFileBytes = std::uint64_t(16) << 20;
    };
    /// Gives the URL to load for the URL asked for; called on the loop's
    /// thread for every load.
    using UrlResolver = std::function<std::string(const std::string& url)>;

    explicit ResourceManager(Domain* domain);
    ~ResourceManager();
    ResourceManager(const ResourceManager&) = delete;
    ResourceManager& operator=(const ResourceManager&) = delete;

    /// The resource registered or loaded under `url`; null if there is none.
    std::shared_ptr<Resource> tryAcquireResource(string_view url);
    /// The resource if it is loaded already; null otherwise. Starts nothing.
    std::shared_ptr<Resource> acquireLoadedResource(string_view url) const;
    /// Starts loading every URL not loaded yet and calls `finished` on the
    /// loop's thread once all are in, failed ones included. Gives a handle
    /// that may be dropped at once; the load goes on.
    std::shared_ptr<void> acquireResourcesAsync(const std::unordered_set<std::string>& urls,
                                                std::function<void()> finished);

    void registerProtocolHandler(const char* protocol, ProtocolHandler handler, ProtocolHandlerFunction function,
                                 void* userData);
    bool supportsProtocolHandler(const char* protocol) const;

    Domain* getDomain() const { return domain; }
    ZvcMemoryManager* getMemoryManager() const;

    /// Host side: makes `resource` known under `name`, replacing any other.
    void registerResource(const std::string& name, std::shared_ptr<Resource> resource);
    /// Host side: forgets the resource under `name`.
    void unregisterResource(const std::string& name);
    /// Host side: loads started and not yet complete, for a host that waits
    /// until everything asked for is in.
    std::size_t pendingLoadCount() const { return pending.size(); }

    /// Host side: the bounds. A smaller cache takes effect at once; a new
    /// load timeout from the next load on.
    const Limits& getLimits() const { return limits; }
    void setLimits(const Limits& newLimits);
    /// Host side: replaces the URL resolver; null to have none.
    void setUrlResolver(UrlResolver resolver);
    /// Host side: bytes of the loaded resources in the cache.
    std::size_t cachedBytes() const { return cacheBytesUsed; }

private:
    struct ProtocolEntry {
        ProtocolHandler handler;
        ProtocolHandlerFunction function;
        void* userData;
    };

    struct Request;
    struct Job;
    struct PendingLoad;
    struct LoaderPool;
    struct CacheEntry {
        std::size_t bytes;
        std::list<std::string>::iterator use;
    };

    void startLoad(const std::string& url, const std::shared_ptr<Request>& request);
    bool resolveUrl(const std::string& url, std::shared_ptr<Resource>& resource, std::shared_ptr<LoadTask>& task);
    void enqueue(const std::shared_ptr<PendingLoad>& load);
    void startDeadline(const std::shared_ptr<Job>& job);
    void giveUp(const std::shared_ptr<Job>& job);
    void replaceLoaders();
    void completeLoad(const std::shared_ptr<Job>& job);
    void finishLoad(const std::string& url, std::shared_ptr<Resource> result);
    void finishRequest(const std::shared_ptr<Request>& request);
    void touch(string_view url) const;
    void cache(const std::string& url, const std::shared_ptr<Resource>& resource);
    void forget(const std::string& url);
    void evict(const std::string& keep);

    Domain* domain;
    Limits limits;
    UrlResolver urlResolver;
    std::map<std::string, std::shared_ptr<Resource>, std::less<>> resources;
    // The loaded resources among them, most recently used first.
    mutable std::list<std::string> recentUse;
    std::map<std::string, CacheEntry, std::less<>> cached;
    std::size_t cacheBytesUsed = 0;
    std::map<std::string, ProtocolEntry, std::less<>> protocols;
    // Loads under way by URL, so that requests for one URL share one load.
    std::map<std::string, std::shared_ptr<PendingLoad>, std::less<>> pending;
    // The loader threads and their queue. Work posted to the loop holds it
    // weakly, so that a completion arriving after the manager is gone is
    // dropped.
    std::shared_ptr<LoaderPool> pool;
};

}  // namespace zarvo

#endif
