// One data source, run as the engine runs it: created by its type name, its
// two properties set, the resource registered and loaded, the loop running.
#ifndef ZARVO_HOST_HOST_SESSION_H
#define ZARVO_HOST_HOST_SESSION_H

#include "command_line.h"
#include "engine_host.h"

#include <zarvo/data_source.h>

#include <functional>
#include <memory>

namespace zarvo::host {

class HostSession {
public:
    /// Loads the plug-in and the source; throws std::runtime_error or
    /// UsageError saying what is wrong.
    explicit HostSession(const SourceOptions& options);
    /// Unloads the source and lets its tree go.
    ~HostSession();
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    Domain& domain() { return engine->domain(); }
    ZvuMessageDispatcher& loop() { return engine->loop(); }
    DataSource& source() { return *dataSource; }
    PluginLibrary& library() { return engine->library(); }
    const SourceOptions& options() const { return sourceOptions; }

    /// Runs the loop until the source has settled: at once without a
    /// service; with one, once the connection is up and neither a query nor
    /// a resource load has been open for a short quiet time, or when
    /// --wait-ms has passed. A service not reached, or a source still
    /// loading, is told in one line on standard error; it is no failure.
    /// `watch` is called whenever the loop has run meanwhile.
    void settle(const std::function<void()>& watch = {});

private:
    void setStringProperty(const std::string& propertyName, const std::string& value);

    SourceOptions sourceOptions;
    std::unique_ptr<EngineHost> engine;
    std::shared_ptr<DataSource> dataSource;
};

}  // namespace zarvo::host

#endif
