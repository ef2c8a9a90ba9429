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
// loaded as a Texture. A loaded resource is kept under its URL.
#ifndef ZARVO_RESOURCE_MANAGER_H
#define ZARVO_RESOURCE_MANAGER_H

#include <zarvo/string_view.h>

#include <cstdint>
#include <functional>
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
    using ProtocolHandlerFunction =
        std::function<std::int32_t(ResourceManager*, string_view, string_view, string_view, std::uint32_t,
                                   string_view, void*, LoadTask*)>;

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

private:
    struct ProtocolEntry {
        ProtocolHandler handler;
        ProtocolHandlerFunction function;
        void* userData;
    };

    struct Request;
    struct PendingLoad;
    struct LoaderPool;

    void startLoad(const std::string& url, const std::shared_ptr<Request>& request);
    bool resolveUrl(const std::string& url, std::shared_ptr<Resource>& resource, std::shared_ptr<LoadTask>& task);
    void enqueue(const std::shared_ptr<PendingLoad>& load);
    void completeLoad(const std::shared_ptr<PendingLoad>& load);
    void finishRequest(const std::shared_ptr<Request>& request);

    Domain* domain;
    std::map<std::string, std::shared_ptr<Resource>, std::less<>> resources;
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
