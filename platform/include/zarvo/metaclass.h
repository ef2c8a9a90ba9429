// Metaclasses: what the engine knows of a type it can create by name.
#ifndef ZARVO_METACLASS_H
#define ZARVO_METACLASS_H

#include <zarvo/property.h>
#include <zarvo/string_view.h>

#include <memory>
#include <vector>

namespace zarvo {

class Domain;
class MetaObject;
class Object;

/// Editor information of a class; this engine carries none.
struct MetaclassEditorInfo {};

class Metaclass {
public:
    Metaclass();
    virtual ~Metaclass();
    Metaclass(const Metaclass&) = delete;
    Metaclass& operator=(const Metaclass&) = delete;

    /// Whether `object` is of this class or one derived from it.
    virtual bool isMetaclassOf(const MetaObject& object) const = 0;
    /// Creates an object of this class; abstract classes throw.
    virtual std::shared_ptr<Object> create(Domain* domain, string_view name) const = 0;

    FixedString getName() const { return name; }
    const Metaclass* getBase() const { return base; }
    bool isAbstract() const { return abstract; }
    bool isSealed() const { return sealed; }
    const std::vector<const AbstractPropertyType*>& getPropertyTypes() const { return propertyTypes; }
    const MetaclassEditorInfo& getEditorInfo() const { return editorInfo; }

    /// Whether this class is `other` or derives from it, by the base chain.
    bool derivesFrom(const Metaclass& other) const;
    /// The property type called `name`, here or in a base; null if none.
    const AbstractPropertyType* findPropertyType(string_view name) const;

    /// Throws std::logic_error once the metaclass is sealed: a finished
    /// metaclass must not change.
    void checkSealed() const;

protected:
    FixedString name = "";
    const Metaclass* base = nullptr;
    bool abstract = false;
    bool sealed = false;
    std::vector<const AbstractPropertyType*> propertyTypes;
    MetaclassEditorInfo editorInfo;
};

}  // namespace zarvo

#endif
