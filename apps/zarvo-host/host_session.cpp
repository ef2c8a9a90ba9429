#include "host_session.h"

#include "service_connection.h"

#include <zarvo/resource_manager.h>

#include <sys/stat.h>

#include <stdexcept>

namespace zarvo::host {

namespace {

const char* const DATA_SOURCE_TYPE = "ZarvoTethrixDataSource";

}  // namespace

HostSession::HostSession(const SourceOptions& options) : sourceOptions(options) {
    if (!options.configFile.empty()) {
        struct stat status {};
        if (::stat(options.configFile.c_str(), &status) != 0) {
            throw std::runtime_error("no configuration file " + options.configFile);
        }
    }
    if (!options.serviceUrl.empty()) {
        connectToService(hostDomain, options.serviceUrl);
    }

    plugin = std::make_unique<PluginLibrary>(options.pluginPath.empty() ? PluginLibrary::defaultPath()
                                                                        : options.pluginPath);
    Module& module = plugin->module();
    module.domain = &hostDomain;
    for (const Metaclass* metaclass : module.getMetaclassesOverride()) {
        factory.registerMetaclass(metaclass);
    }
    module.registerMetadataOverride(factory);

    dataSource = std::dynamic_pointer_cast<DataSource>(factory.create(DATA_SOURCE_TYPE, &hostDomain, options.name));
    if (!dataSource) {
        throw std::runtime_error(std::string("the plug-in's ") + DATA_SOURCE_TYPE + " is no data source");
    }
    setStringProperty("ZarvoTethrixDataSource.XmlFileName", options.configFile);
    setStringProperty("ZarvoTethrixDataSource.XmlDeclaration", options.declaration);
    hostDomain.getResourceManager()->registerResource(options.name, dataSource);
    dataSource->loadFromZVB(nullptr, nullptr, nullptr);
}

HostSession::~HostSession() {
    if (dataSource) {
        dataSource->unloadOverride();
        hostDomain.getResourceManager()->unregisterResource(sourceOptions.name);
    }
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
    waitUntilSettled(hostDomain, sourceOptions.wait);
}

}  // namespace zarvo::host
