#include "datasource/content_adapter_manager.h"

#include "datasource/content_adapter.h"
#include "datasource/content_adapter_configuration.h"

#include <zarvo/content_loader.h>

#include <zarvo/log.h>

#include <algorithm>
#include <unordered_set>

namespace zarvo {

namespace {

const char* const contentServiceName = "Content";

std::shared_ptr<AbstractServiceClient> createContentServiceClient(Client* client, const std::string& name) {
    return ContentServiceClient::create(client, name);
}

}  // namespace

ContentAdapterManager::ContentAdapterManager(std::shared_ptr<Context> context) : context(std::move(context)) {}

ContentAdapterManager::~ContentAdapterManager() {
    // Stopping is the adapters' own business (their destructors stop them);
    // this only lets go, in the order the members are declared backwards.
    context.reset();
    dynamicAdapters.clear();
    adapters.clear();
}

std::shared_ptr<ContentAdapter> ContentAdapterManager::createAdapter(
    std::shared_ptr<ContentAdapterConfiguration> config, Domain* domain) {
    return std::make_shared<ContentAdapter>(std::move(config), domain, context);
}

void ContentAdapterManager::addAdapter(std::shared_ptr<ContentAdapter> adapter) {
    if (!adapter->getConfig()->dynamicSource.empty()) {
        dynamicAdapters.push_back(adapter);
    } else {
        adapters.push_back(adapter);
    }
    adapter->setParent(this);
}

void ContentAdapterManager::removeAdapter(std::shared_ptr<ContentAdapter> adapter) {
    auto found = std::find(adapters.begin(), adapters.end(), adapter);
    if (found != adapters.end()) {
        adapters.erase(found);
    }
}

std::shared_ptr<ContentAdapter> ContentAdapterManager::findSource(const std::string& name) {
    for (const auto& adapter : adapters) {
        if (adapter->getConfig()->name == name) {
            return adapter;
        }
    }
    return nullptr;
}

std::shared_ptr<ContentAdapter> ContentAdapterManager::findDynamicSource(const std::string& name) {
    // Keyed by dynamicSource, not name: a used dynamic source is renamed "item".
    for (const auto& adapter : dynamicAdapters) {
        if (adapter->getConfig()->dynamicSource == name) {
            return adapter;
        }
    }
    return nullptr;
}

void ContentAdapterManager::initializeAllAdapters(std::shared_ptr<DataObject> dataObject) {
    // Dynamic sources first: their objects must exist before a list field of
    // an ordinary source looks them up.
    for (const auto& adapter : dynamicAdapters) {
        adapter->initialize(dataObject, true);
    }
    for (const auto& adapter : adapters) {
        adapter->initialize(dataObject, true);
    }
}

static std::shared_ptr<ContentLoader> makeLoader(const std::shared_ptr<Context>& context) {
    std::shared_ptr<Client> client = context->getClient();
    MessageDispatcher* dispatcher = client->getConnection()->getMessageDispatcher();
    return std::make_shared<DefaultContentLoader>(client.get(), dispatcher);
}

void ContentAdapterManager::startAllAdapters() {
    std::shared_ptr<ContentServiceClient> service = std::dynamic_pointer_cast<ContentServiceClient>(
        context->acquireService(contentServiceName, &createContentServiceClient));
    service.reset();  // the context keeps the service alive from here on

    for (const auto& adapter : adapters) {
        adapter->start(makeLoader(context));
    }
}

void ContentAdapterManager::stopAllAdapters() {
    context->releaseService(contentServiceName);
    for (const auto& adapter : adapters) {
        adapter->stop();
    }
}

void ContentAdapterManager::destroyAllAdapters() {
    stopAllAdapters();
    adapters.clear();
    dynamicAdapters.clear();
}

std::shared_ptr<ContentAdapter> ContentAdapterManager::startAdapter(
    std::shared_ptr<DataObject> dataObject, std::shared_ptr<ContentAdapterConfiguration> config) {
    std::shared_ptr<ContentAdapter> adapter = createAdapter(config, dataObject->getDomain());
    // No setParent here: a child adapter has no parent to look sources up in.
    adapters.push_back(adapter);
    adapter->initialize(dataObject, false);
    adapter->start(makeLoader(context));
    return adapter;
}

void ContentAdapterManager::stopAdapter(std::shared_ptr<ContentAdapter> adapter) {
    if (std::find(adapters.begin(), adapters.end(), adapter) != adapters.end()) {
        adapter->stop();
    }
}

void ContentAdapterManager::dropIdleChildAdapters() {
    if (adapters.size() < 2 * adaptersAfterDrop + 16) {
        return;
    }
    std::unordered_set<const DataObject*> filledRows;
    std::vector<std::shared_ptr<ContentAdapter>> kept;
    kept.reserve(adapters.size());
    // Newest first: of several children on one row, the newest fills it.
    for (auto it = adapters.rbegin(); it != adapters.rend(); ++it) {
        const std::shared_ptr<DataObject> row = (*it)->getDataObject();
        // This copy and the child's own member: nobody else holds the row.
        const bool orphaned = !row || row.use_count() <= 2;
        const bool superseded = row && !filledRows.insert(row.get()).second;
        if (!orphaned && !superseded) {
            kept.push_back(*it);
        }
    }
    std::reverse(kept.begin(), kept.end());
    const std::size_t before = adapters.size();
    adapters.swap(kept);
    adaptersAfterDrop = adapters.size();
    // The dropped children stop in their destructors, here.
    kept.clear();
    if (adaptersAfterDrop < before && !reportedIdleAdapters) {
        reportedIdleAdapters = true;
        ZARVO_LOG_INFO("tethrix",
                       "ContentAdapterManager: dropped {} of {} child adapters whose rows are gone or filled anew; "
                       "idle child adapters are dropped from here on",
                       before - adaptersAfterDrop, before);
    }
}

}  // namespace zarvo
