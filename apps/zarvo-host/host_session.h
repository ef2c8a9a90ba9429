// One data source, run as the engine runs it: the plug-in loaded through
// createModule, its metaclasses registered, the source created by its type
// name, its two properties set, the resource loaded, and the loop running.
#ifndef ZARVO_HOST_HOST_SESSION_H
#define ZARVO_HOST_HOST_SESSION_H

#include "command_line.h"
#include "plugin_library.h"

#include <zarvo/data_source.h>
#include <zarvo/domain.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/module.h>

#include <memory>

namespace zarvo::host {

class HostSession {
public:
    /// Loads the plug-in and the source; throws std::runtime_error or
    /// UsageError saying what is wrong.
    explicit HostSession(const SourceOptions& options);
    /// Unloads the source.
    ~HostSession();
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    Domain& domain() { return hostDomain; }
    ZvuMessageDispatcher& loop() { return *hostDomain.getMessageDispatcher(); }
    DataSource& source() { return *dataSource; }
    const SourceOptions& options() const { return sourceOptions; }

    /// Runs the loop until the source has settled: at once without a
    /// service; with one, once the connection is up and no query has been
    /// open for a short quiet time, or when --wait-ms has passed.
    void settle();

private:
    void setStringProperty(const std::string& propertyName, const std::string& value);

    SourceOptions sourceOptions;
    Domain hostDomain;
    ObjectFactory factory;
    std::unique_ptr<PluginLibrary> plugin;
    std::shared_ptr<DataSource> dataSource;
};

}  // namespace zarvo::host

#endif
