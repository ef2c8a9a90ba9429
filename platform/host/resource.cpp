#include <zarvo/resource.h>

namespace zarvo {

Resource::Resource(Domain* domain, string_view name) : Object(domain, name) {}

Resource::~Resource() = default;

void Resource::loadFromZVB(const ResourceLoaderThreadContext*, ZvcInputStream*, const ZvuBinaryFileInfo*) {
    setLoaded(true);
}

void Resource::unloadOverride() {
    setLoaded(false);
}

std::size_t Resource::getCPUMemoryUsage() const {
    return getCPUMemoryUsageOverride();
}

// A resource without a file of its own has nothing to read again.
void Resource::reloadOverride() {}

void Resource::reloadFromZvbOverride(ZvcInputStream*, const ZvuBinaryFileInfo*) {}

void Resource::reloadFromZvbOverride(ZvbFile&, ReadOnlyMemoryFile&, ZvbMemoryParser&) {}

void Resource::reloadFromFileOverride(string_view) {}

std::size_t Resource::getCPUMemoryUsageOverride() const {
    return 0;
}

}  // namespace zarvo
