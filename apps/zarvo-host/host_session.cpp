#include "host_session.h"

#include "service_connection.h"

#include <zarvo/resource_manager.h>

#include <iostream>
#include <stdexcept>

namespace zarvo::host {

namespace {

const char* const dataSourceType = "ZarvoTethrixDataSource";

}  // namespace

HostSession::HostSession(const SourceOptions& options) : sourceOptions(options) {
    engine = std::make_unique<EngineHost>(options.pluginPath, options.serviceUrl);

    dataSource = std::dynamic_pointer_cast<DataSource>(
        engine->factory().create(dataSourceType, &engine->domain(), options.name));
    if (!dataSource) {
        throw std::runtime_error(std::string("the plug-in's ") + dataSourceType + " is no data source");
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
    // Unloading lets the tree go, as it does when the engine unloads.
    dataSource->unloadOverride();
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

void HostSession::settle(const std::function<void()>& watch) {
    loop().runUntilIdle();
    if (sourceOptions.serviceUrl.empty()) {
        return;
    }
    const auto limit = sourceOptions.wait.value_or(defaultSettleLimit);
    switch (waitUntilSettled(domain(), limit, watch)) {
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
