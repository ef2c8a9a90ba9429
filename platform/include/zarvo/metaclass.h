// Metaclasses: what the engine knows of a type it can create by name.
//
// Every class the engine knows by name has one metaclass, a function-local
// static object that its static getStaticMetaclass() builds on first use and
// that its getDynamicMetaclass() returns:
//
//     const Metaclass* MyDataSource::getStaticMetaclass() {
//         static const MetaclassImpl<MyDataSource> metaclass(
//             "MyDataSource", DataSource::getStaticMetaclass(), false,
//             {&FileProperty, &TextProperty}, &DataSource::makeEditorInfo);
//         return &metaclass;
//     }
//
// The base's metaclass is an argument, so it is built before the class's own.
// The constructor then sets name, base and abstract flag, appends the class's
// own property types in order, takes the editor information and seals the
// metaclass; a sealed metaclass refuses every further change.
//
// Three templates cover the kinds of class:
// - MetaclassImpl<T>: a creatable class; create() forwards to the static
//   T::create(Domain*, string_view).
// - MetaclassAbstractImpl<T>: an abstract class that objects can still be
//   recognised by (isMetaclassOf by dynamic_cast); create() throws.
// - MetaclassStaticImpl<T>: a class known for its properties only;
//   isMetaclassOf() is always false and create() throws.
#ifndef ZARVO_METACLASS_H
#define ZARVO_METACLASS_H

#include <zarvo/property.h>
#include <zarvo/string_view.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class Domain;
class MetaObject;
class Object;

/// Editor information of a class; this engine carries none.
struct MetaclassEditorInfo {};

/// Throws an exception of type E with `text` as its message. The engine's
/// one way of raising errors from its metaclass machinery.
template <typename E>
[[noreturn]] void zvThrowException(const std::string& text) {
    throw E(text);
}

class Metaclass {
public:
    /// Makes the editor information of a class (such as DataSource::makeEditorInfo).
    using EditorInfoFunction = MetaclassEditorInfo (*)();

    Metaclass();
    virtual ~Metaclass();
    Metaclass(const Metaclass&) = delete;
    Metaclass& operator=(const Metaclass&) = delete;

    /// Whether `object` is of this class or one derived from it.
    virtual bool isMetaclassOf(const MetaObject& object) const = 0;
    /// Creates an object of this class; abstract classes throw.
    virtual std::shared_ptr<Object> create(Domain* domain, string_view name) const = 0;

    /// The same for an object pointer: false for null.
    bool isMetaclassOf(const MetaObject* object) const { return object != nullptr && isMetaclassOf(*object); }

    FixedString getName() const { return name; }
    const Metaclass* getBase() const { return base; }
    bool isAbstract() const { return abstract; }
    bool isSealed() const { return sealed; }
    /// The class's own property types, in order; those of the bases are not repeated.
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
    /// Builds the metaclass once: name, base and abstract flag, then (unless
    /// sealed already) each own property type in order, the editor
    /// information, and the seal. `makeEditorInfo` may be null.
    void define(FixedString className, const Metaclass* baseClass, bool isAbstractClass,
                std::initializer_list<const AbstractPropertyType*> ownPropertyTypes, EditorInfoFunction makeEditorInfo);

    FixedString name = "";
    const Metaclass* base = nullptr;
    bool abstract = false;
    bool sealed = false;
    std::vector<const AbstractPropertyType*> propertyTypes;
    MetaclassEditorInfo editorInfo;
};

/// Base of the metaclasses of abstract classes: create() throws
/// std::logic_error "Tried to create an abstract type object '<name>'".
class MetaclassAbstractBase : public Metaclass {
public:
    std::shared_ptr<Object> create(Domain* domain, string_view name) const override;
};

/// Base of the metaclasses of classes that are known by their properties
/// only: no object counts as theirs, and none can be created.
class MetaclassStaticBase : public Metaclass {
public:
    using Metaclass::isMetaclassOf;
    bool isMetaclassOf(const MetaObject& object) const override;
    std::shared_ptr<Object> create(Domain* domain, string_view name) const override;
};

/// The metaclass of a creatable class T, which provides
/// static std::shared_ptr<T> create(Domain*, string_view).
template <typename T>
class MetaclassImpl : public Metaclass {
public:
    MetaclassImpl(FixedString className, const Metaclass* baseClass, bool isAbstractClass,
                  std::initializer_list<const AbstractPropertyType*> ownPropertyTypes,
                  EditorInfoFunction makeEditorInfo) {
        define(className, baseClass, isAbstractClass, ownPropertyTypes, makeEditorInfo);
    }

    using Metaclass::isMetaclassOf;
    bool isMetaclassOf(const MetaObject& object) const override { return dynamic_cast<const T*>(&object) != nullptr; }
    std::shared_ptr<Object> create(Domain* domain, string_view objectName) const override {
        return T::create(domain, objectName);
    }
};

/// The metaclass of an abstract class T.
template <typename T>
class MetaclassAbstractImpl : public MetaclassAbstractBase {
public:
    MetaclassAbstractImpl(FixedString className, const Metaclass* baseClass, bool isAbstractClass,
                          std::initializer_list<const AbstractPropertyType*> ownPropertyTypes,
                          EditorInfoFunction makeEditorInfo) {
        define(className, baseClass, isAbstractClass, ownPropertyTypes, makeEditorInfo);
    }

    using Metaclass::isMetaclassOf;
    bool isMetaclassOf(const MetaObject& object) const override { return dynamic_cast<const T*>(&object) != nullptr; }
};

/// The metaclass of a class T known by its properties only.
template <typename T>
class MetaclassStaticImpl : public MetaclassStaticBase {
public:
    MetaclassStaticImpl(FixedString className, const Metaclass* baseClass, bool isAbstractClass,
                        std::initializer_list<const AbstractPropertyType*> ownPropertyTypes,
                        EditorInfoFunction makeEditorInfo) {
        define(className, baseClass, isAbstractClass, ownPropertyTypes, makeEditorInfo);
    }
};

}  // namespace zarvo

#endif
