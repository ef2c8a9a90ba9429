// Modules: what a plug-in library gives the engine, and the factory that
// creates objects by their type name.
//
// A plug-in exports one plain function, createModule, that returns a new
// Module with a null `domain`. The engine sets `domain`, registers the
// metaclasses of getMetaclassesOverride() with its ObjectFactory, calls
// registerMetadataOverride(), and releases the module at the end through
// destroyModule().
#ifndef ZARVO_MODULE_H
#define ZARVO_MODULE_H

#include <zarvo/metaclass.h>
#include <zarvo/string_view.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class Domain;
class Object;

/// The metaclasses the engine can create objects of, by type name.
class ObjectFactory {
public:
    /// Makes `metaclass` known under its name, replacing one of the same
    /// name. Null is ignored.
    void registerMetaclass(const Metaclass* metaclass);
    /// The metaclass called `typeName`; null if none is registered.
    const Metaclass* findMetaclass(string_view typeName) const;
    /// Creates an object of type `typeName` through its metaclass. Throws
    /// std::logic_error for a type that is not registered; an abstract type's
    /// metaclass throws its own std::logic_error.
    std::shared_ptr<Object> create(string_view typeName, Domain* domain, string_view name) const;
    /// Every registered metaclass, ordered by name.
    std::vector<const Metaclass*> getMetaclasses() const;

private:
    std::map<std::string, const Metaclass*, std::less<>> metaclasses;
};

class Module {
public:
    Module() = default;
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    // The order of the virtual operations is part of the interface.

    /// The metaclasses the engine is to register. The base gives none.
    virtual std::vector<const Metaclass*> getMetaclassesOverride();
    /// Deletes the module. It must not be called through a null pointer;
    /// the engine goes through destroyModule(), which checks.
    virtual void destroy();
    /// Registers whatever else the module brings, once `domain` is set. The
    /// base does nothing.
    virtual void registerMetadataOverride(ObjectFactory& factory);
    virtual ~Module();

    /// The domain the module works in; null until the engine sets it.
    Domain* domain = nullptr;
};

/// A module loaded from a plug-in library.
class Plugin : public Module {};

/// Destroys `module` through Module::destroy(); null does nothing.
void destroyModule(Module* module);

/// The type of a plug-in's exported entry, looked up as "createModule".
using CreateModuleFunction = Module* (*)();

}  // namespace zarvo

#endif
