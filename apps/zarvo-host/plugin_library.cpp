#include "plugin_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <sys/stat.h>
#include <stdexcept>

namespace zarvo::host {

namespace {

const char* const libraryName = "libzarvo_tethrix_datasource.so";
// The exported static ZarvoTethrixDataSource::takeDataSnapshot(Domain*, const
// std::string&, std::string&, std::string&), by its linker name.
const char* const takeDataSnapshotSymbol =
    "_ZN5zarvo22ZarvoTethrixDataSource16takeDataSnapshotEPNS_6DomainERKNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEERS8_SB_";

std::string programDirectory() {
    char buffer[4096];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0) {
        return ".";
    }
    std::string path(buffer, static_cast<std::size_t>(length));
    return path.substr(0, path.find_last_of('/'));
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

std::string PluginLibrary::defaultPath() {
    const std::string directory = programDirectory();
    // Beside the program or in the build's lib folder, then where it is installed.
    for (const std::string& candidate : {directory + "/" + libraryName, directory + "/../lib/" + libraryName,
                                         directory + "/../lib/zarvo/plugins/" + libraryName}) {
        if (exists(candidate)) {
            return candidate;
        }
    }
    return directory + "/../lib/" + libraryName;
}

PluginLibrary::PluginLibrary(const std::string& path) : libraryPath(path) {
    if (!exists(path)) {
        throw std::runtime_error("no plug-in at " + path);
    }
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error("cannot load plug-in " + path + ": " + dlerror());
    }
    auto entry = reinterpret_cast<CreateModuleFunction>(dlsym(handle, "createModule"));
    if (entry == nullptr) {
        throw std::runtime_error("plug-in " + path + " has no createModule entry");
    }
    loadedModule = entry();
    if (loadedModule == nullptr) {
        throw std::runtime_error("createModule of " + path + " gave no module");
    }
}

void PluginLibrary::takeDataSnapshot(Domain* domain, const std::string& resourceName, std::string& xmlFileName,
                                     std::string& snapshot) {
    using Snapshot = void (*)(Domain*, const std::string&, std::string&, std::string&);
    auto entry = reinterpret_cast<Snapshot>(dlsym(handle, takeDataSnapshotSymbol));
    if (entry == nullptr) {
        throw std::runtime_error("plug-in " + libraryPath + " exports no takeDataSnapshot");
    }
    entry(domain, resourceName, xmlFileName, snapshot);
}

PluginLibrary::~PluginLibrary() {
    destroyModule(loadedModule);
}

}  // namespace zarvo::host
