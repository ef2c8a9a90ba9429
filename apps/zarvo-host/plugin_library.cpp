#include "plugin_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <stdexcept>
#include <sys/stat.h>

namespace zarvo::host {

namespace {

const char* const LIBRARY_NAME = "libzarvo_tethrix_datasource.so";

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
    for (const std::string& candidate : {directory + "/" + LIBRARY_NAME, directory + "/../lib/" + LIBRARY_NAME,
                                         directory + "/../lib/zarvo/plugins/" + LIBRARY_NAME}) {
        if (exists(candidate)) {
            return candidate;
        }
    }
    return directory + "/../lib/" + LIBRARY_NAME;
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

PluginLibrary::~PluginLibrary() {
    destroyModule(loadedModule);
}

}  // namespace zarvo::host
