#include "host_session.h"

#include "service_connection.h"

#include "datasource/tethrix_data_object_list.h"

#include <zarvo/resource_manager.h>

#include <sys/stat.h>

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
    // The lists and their adapters would keep each other alive past the end.
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
    waitUntilSettled(domain(), sourceOptions.wait);
}

}  // namespace zarvo::host
