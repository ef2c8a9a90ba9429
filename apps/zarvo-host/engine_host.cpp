#include "engine_host.h"

#include "service_connection.h"

namespace zarvo::host {

EngineHost::EngineHost(const std::string& pluginPath, const std::string& serviceUrl) {
    if (!serviceUrl.empty()) {
        connectToService(engineDomain, serviceUrl);
    }
    plugin = std::make_unique<PluginLibrary>(pluginPath.empty() ? PluginLibrary::defaultPath() : pluginPath);
    Module& module = plugin->module();
    module.domain = &engineDomain;
    for (const Metaclass* metaclass : module.getMetaclassesOverride()) {
        objectFactory.registerMetaclass(metaclass);
    }
    module.registerMetadataOverride(objectFactory);
}

EngineHost::~EngineHost() = default;

}  // namespace zarvo::host
