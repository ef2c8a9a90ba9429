// Resources: objects the engine loads from its binary resource files, by name.
#ifndef ZARVO_RESOURCE_H
#define ZARVO_RESOURCE_H

#include <zarvo/object.h>

#include <cstddef>

namespace zarvo {

// Handles of the engine's resource file reading. The engine passes them
// through loading; a resource that reads nothing of its own ignores them.
class ResourceLoaderThreadContext;
class ZvcInputStream;
struct ZvuBinaryFileInfo;
class ZvbFile;
class ReadOnlyMemoryFile;
class ZvbMemoryParser;

class Resource : public Object {
public:
    Resource(Domain* domain, string_view name);
    ~Resource() override;

    /// Reads the resource. When it returns, the resource's properties hold
    /// their values. The base marks the resource loaded.
    virtual void loadFromZVB(const ResourceLoaderThreadContext* context, ZvcInputStream* stream,
                             const ZvuBinaryFileInfo* info);
    /// Called when the resource is unloaded. The base marks it not loaded.
    virtual void unloadOverride();
    virtual std::size_t getCPUMemoryUsage() const;
    virtual void reloadOverride();
    virtual void reloadFromZvbOverride(ZvcInputStream* stream, const ZvuBinaryFileInfo* info);
    virtual void reloadFromZvbOverride(ZvbFile& file, ReadOnlyMemoryFile& memoryFile, ZvbMemoryParser& parser);
    virtual void reloadFromFileOverride(string_view fileName);
    virtual std::size_t getCPUMemoryUsageOverride() const;

    bool isLoaded() const { return loaded; }

protected:
    void setLoaded(bool value) { loaded = value; }

private:
    bool loaded = false;
};

}  // namespace zarvo

#endif
