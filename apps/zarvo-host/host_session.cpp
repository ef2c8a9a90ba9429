#include "host_session.h"

#include "service_connection.h"

#include "datasource/abstract_tethrix_datasource.h"
#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"

#include <zarvo/resource_manager.h>
#include <zarvo/runtime_data.h>

#include <sys/stat.h>

#include <iostream>
#include <stdexcept>

namespace zarvo::host {

namespace {

const char* const DATA_SOURCE_TYPE = "ZarvoTethrixDataSource";

void expectFile(const std::string& path) {
    struct stat status {};
    if (!path.empty() && ::stat(path.c_str(), &status) != 0) {
        throw std::runtime_error("no configuration file " + path);
    }
}

/// A runtime node and the data object that mirrors it hold each other (a
/// runtime list through its rows and its row template too); the links are
/// cut so that both can go.
void releaseRuntimeBindings(RuntimeDataObject& node) {
    node.boundDataObject.reset();
    for (auto child = node.beginChildren(); child != node.endChildren(); ++child) {
        releaseRuntimeBindings(**child);
    }
    auto* list = dynamic_cast<RuntimeDataObjectList*>(&node);
    if (list == nullptr) {
        return;
    }
    list->itemTemplateDataObject.reset();
    for (std::size_t index = 0; index < list->itemCount(); ++index) {
        releaseRuntimeBindings(*list->getItem(index));
    }
}

void releaseRuntimeBindings(DataSource& source) {
    auto* tethrix = dynamic_cast<AbstractTethrixDataSource*>(&source);
    if (tethrix == nullptr) {
        return;
    }
    for (const auto& adapter : tethrix->getAdapters()) {
        if (adapter->getConfig()->runtimeData) {
            releaseRuntimeBindings(*adapter->getConfig()->runtimeData);
        }
    }
}

}  // namespace

HostSession::HostSession(const SourceOptions& options) : sourceOptions(options) {
    expectFile(options.configFile);
    engine = std::make_unique<EngineHost>(options.pluginPath, options.serviceUrl);

    dataSource = std::dynamic_pointer_cast<DataSource>(
        engine->factory().create(DATA_SOURCE_TYPE, &engine->domain(), options.name));
    if (!dataSource) {
        throw std::runtime_error(std::string("the plug-in's ") + DATA_SOURCE_TYPE + " is no data source");
    }
    setStringProperty("ZarvoTethrixDataSource.XmlFileName", options.configFile);
    setStringProperty("ZarvoTethrixDataSource.XmlDeclaration", options.declaration);
    engine->domain().getResourceManager()->registerResource(options.name, dataSource);
    dataSource->loadFromZVB(nullptr, nullptr, nullptr);
}

HostSession::~HostSession() {
    if (!dataSource) {
        return;
    }
    // The lists and their adapters, and runtime data and their mirrors,
    // would keep each other alive past the end.
    releaseRuntimeBindings(*dataSource);
    std::shared_ptr<DataObject> tree = dataSource->getData();
    dataSource->unloadOverride();
    TethrixDataObjectList::releaseAdapters(tree);
    engine->domain().getResourceManager()->unregisterResource(sourceOptions.name);
}

void HostSession::setStringProperty(const std::string& propertyName, const std::string& value) {
    const Metaclass* metaclass = dataSource->getDynamicMetaclass();
    const auto* type = dynamic_cast<const PropertyType<std::string>*>(metaclass->findPropertyType(propertyName));
    if (type == nullptr) {
        throw std::runtime_error("the plug-in's data source has no property " + propertyName);
    }
    dataSource->setValue(*type, value);
}

void HostSession::settle() {
    loop().runUntilIdle();
    if (sourceOptions.serviceUrl.empty()) {
        return;
    }
    const auto limit = sourceOptions.wait.value_or(DEFAULT_SETTLE_LIMIT);
    switch (waitUntilSettled(domain(), limit)) {
    case SettleOutcome::Settled:
        return;
    case SettleOutcome::Unreachable:
        // Not fatal: what the source holds without the service is worth
        // showing too.
        std::cerr << "zarvo-host: the service at " << sourceOptions.serviceUrl << " could not be reached within "
                  << limit.count() << " ms; showing what the source holds without it" << std::endl;
        return;
    case SettleOutcome::Busy:
        std::cerr << "zarvo-host: the source was still loading after " << limit.count()
                  << " ms; showing what it holds so far" << std::endl;
        return;
    }
}

}  // namespace zarvo::host
