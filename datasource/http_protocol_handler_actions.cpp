#include "datasource/http_protocol_handler_actions.h"

#include "datasource/load_image_task.h"

#include <zarvo/client.h>
#include <zarvo/domain.h>
#include <zarvo/log.h>
#include <zarvo/resource.h>
#include <zarvo/resource_manager.h>

#include <cstdint>
#include <memory>
#include <string>

namespace zarvo {

namespace {

std::int32_t ImageFileLoader(ResourceManager* resourceManager, string_view url, string_view /*basePath*/,
                             string_view /*resourceType*/, std::uint32_t /*flags*/, string_view /*locale*/,
                             void* /*userData*/, std::shared_ptr<Resource>& resource,
                             std::shared_ptr<ResourceManager::LoadTask>& task) {
    Domain* domain = resourceManager->getDomain();
    std::shared_ptr<Client> client = Context::instance(*domain, nullptr)->getClient();
    // The service may hand out URLs relative to its file server; from here
    // on only the resolved URL counts.
    const std::string resolvedUrl = client->resolveResourceUrl(std::string(url.data(), url.size()), 1);
    ZARVO_LOG_INFO("debug", "Loading image from: {}.", resolvedUrl);
    task = std::make_shared<LoadImageTask>(resolvedUrl, domain);
    resource = nullptr;
    return 0;
}

struct ProtocolHandlerEntry {
    const char* name;
    ResourceManager::ProtocolHandler handler;
};

const ProtocolHandlerEntry protocolHandlers[] = {
    {"http", &ImageFileLoader},
    {"https", &ImageFileLoader},
};

}  // namespace

void registerSupportedProtocols(Domain* domain) {
    if (domain == nullptr) {
        return;
    }
    ResourceManager* resourceManager = domain->getResourceManager();
    if (resourceManager == nullptr) {
        return;
    }
    Context::instance(*domain, nullptr)->setContextValue(1, 1);
    for (const ProtocolHandlerEntry& entry : protocolHandlers) {
        // A handler that is there already, ours or another's, wins.
        if (resourceManager->supportsProtocolHandler(entry.name)) {
            continue;
        }
        resourceManager->registerProtocolHandler(entry.name, entry.handler, ResourceManager::ProtocolHandlerFunction(),
                                                 nullptr);
        ZARVO_LOG_INFO("debug", "Registering {} protocol", entry.name);
    }
}

}  // namespace zarvo
