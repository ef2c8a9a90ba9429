// The engine's side of a plug-in's life: a domain with its loop, the plug-in
// loaded through createModule, its metaclasses registered and its metadata
// hook called.
#ifndef ZARVO_HOST_ENGINE_HOST_H
#define ZARVO_HOST_ENGINE_HOST_H

#include "plugin_library.h"

#include <zarvo/domain.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/module.h>

#include <memory>
#include <string>

namespace zarvo::host {

class EngineHost {
public:
    /// `pluginPath` empty: the plug-in built beside this program. A
    /// non-empty `serviceUrl` points the client library at that service
    /// before the plug-in is loaded. Throws std::runtime_error saying what
    /// went wrong.
    EngineHost(const std::string& pluginPath, const std::string& serviceUrl);
    ~EngineHost();
    EngineHost(const EngineHost&) = delete;
    EngineHost& operator=(const EngineHost&) = delete;

    Domain& domain() { return engineDomain; }
    ZvuMessageDispatcher& loop() { return *engineDomain.getMessageDispatcher(); }
    ObjectFactory& factory() { return objectFactory; }
    PluginLibrary& library() { return *plugin; }

private:
    Domain engineDomain;
    ObjectFactory objectFactory;
    std::unique_ptr<PluginLibrary> plugin;
};

}  // namespace zarvo::host

#endif
