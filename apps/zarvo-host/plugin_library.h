// A plug-in library loaded as the engine loads one: dlopen, then its
// createModule entry.
#ifndef ZARVO_HOST_PLUGIN_LIBRARY_H
#define ZARVO_HOST_PLUGIN_LIBRARY_H

#include <zarvo/module.h>

#include <string>

namespace zarvo::host {

class PluginLibrary {
public:
    /// Loads the library at `path` and creates its module; throws
    /// std::runtime_error saying why not.
    explicit PluginLibrary(const std::string& path);
    /// Destroys the module. The library stays mapped until the process
    /// ends, as objects it made may outlive the module.
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    Module& module() { return *loadedModule; }
    /// The plug-in's exported snapshot of the source `resourceName`
    /// (ZarvoTethrixDataSource::takeDataSnapshot); throws std::runtime_error
    /// if the library has none.
    void takeDataSnapshot(Domain* domain, const std::string& resourceName, std::string& xmlFileName,
                          std::string& snapshot);
    const std::string& path() const { return libraryPath; }

    /// The plug-in built beside this program, or installed with it.
    static std::string defaultPath();

private:
    std::string libraryPath;
    void* handle = nullptr;
    Module* loadedModule = nullptr;
};

}  // namespace zarvo::host

#endif
