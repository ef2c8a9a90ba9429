#include <zarvo/client.h>

#include <zarvo/domain.h>
#include <zarvo/resource_manager.h>

#include <utility>

namespace zarvo {

namespace {
// The domain attachment under which a domain keeps its context.
const char* const contextAttachmentKey = "zarvo.client.context";
}  // namespace

std::shared_ptr<Context> Context::instance(Domain& domain, const char* /*name*/) {
    if (auto existing = domain.getAttachment(contextAttachmentKey)) {
        return std::static_pointer_cast<Context>(existing);
    }
    auto context = std::make_shared<Context>(domain);
    domain.setAttachment(contextAttachmentKey, context);
    return context;
}

Context::Context(Domain& domain)
    : domain(domain),
      client(std::make_shared<Client>(this, domain.getMessageDispatcher())) {
    // Resource URLs found in the content are the service's: a relative one
    // names a file of the service, never one of the local file system.
    ResourceManager* resources = domain.getResourceManager();
    if (resources == nullptr) {
        return;
    }
    std::weak_ptr<Client> weakClient = client;
    resources->setUrlResolver([weakClient](const std::string& url) {
        auto alive = weakClient.lock();
        return alive ? alive->resolveResourceUrl(url, 1) : url;
    });
}

// Members go in reverse order: the service clients, which point at the
// client, before the client.
Context::~Context() {
    // A context held by a resource may go while the resource manager does.
    if (ResourceManager* resources = domain.getResourceManager()) {
        resources->setUrlResolver(nullptr);
    }
}

std::shared_ptr<AbstractServiceClient> Context::acquireService(const std::string& name, ServiceFactory factory) {
    Service& service = services[name];
    ++service.statistics.acquires;
    ++service.statistics.holders;
    if (!service.client && factory) {
        service.client = factory(client.get(), name);
    }
    return service.client;
}

void Context::releaseService(const std::string& name) {
    // Users release more often than they acquire; the surplus is counted
    // and otherwise ignored.
    Service& service = services[name];
    ++service.statistics.releases;
    if (service.statistics.holders == 0) {
        return;
    }
    if (--service.statistics.holders == 0) {
        service.client.reset();
    }
}

void Context::setContextValue(int key, int value) {
    values[key] = value;
}

int Context::getContextValue(int key, int defaultValue) const {
    const auto it = values.find(key);
    return it == values.end() ? defaultValue : it->second;
}

Context::ServiceStatistics Context::getServiceStatistics(const std::string& name) const {
    const auto it = services.find(name);
    return it == services.end() ? ServiceStatistics() : it->second.statistics;
}

}  // namespace zarvo
