// Property types of the engine.
//
// A property type is a static object that names a property and holds its
// descriptor, which carries the default value. An object's current value of a
// property is read through PropertyObject::getFinalValueSource(); while the
// object has none, the descriptor's default stands.
#ifndef ZARVO_PROPERTY_H
#define ZARVO_PROPERTY_H

#include <boost/intrusive_ptr.hpp>

#include <atomic>
#include <string>
#include <utility>

namespace zarvo {

/// A property or metaclass name, a string with static storage duration.
using FixedString = const char*;

/// Editor texts of a property or class; this engine carries none.
class PropertyTypeEditorInfo {};

enum class PropertyNotificationReason : int { ValueChanged = 0, ValueCleared = 1 };

class AbstractPropertyTypeDescriptor {
public:
    /// A reference-counted cell that holds one object's value of a property.
    class PropertyStorage {
    public:
        virtual ~PropertyStorage();
        /// Points at the value held.
        virtual const void* getValueSource() const = 0;

    private:
        friend void intrusive_ptr_add_ref(PropertyStorage* storage);
        friend void intrusive_ptr_release(PropertyStorage* storage);
        std::atomic<long> referenceCount{0};
    };

    explicit AbstractPropertyTypeDescriptor(FixedString name) : name(name) {}
    virtual ~AbstractPropertyTypeDescriptor();
    AbstractPropertyTypeDescriptor(const AbstractPropertyTypeDescriptor&) = delete;
    AbstractPropertyTypeDescriptor& operator=(const AbstractPropertyTypeDescriptor&) = delete;

    FixedString getName() const { return name; }
    /// Points at the default value.
    virtual const void* getDefaultValueSource() const = 0;

private:
    FixedString name;
};

void intrusive_ptr_add_ref(AbstractPropertyTypeDescriptor::PropertyStorage* storage);
void intrusive_ptr_release(AbstractPropertyTypeDescriptor::PropertyStorage* storage);

template <typename T>
class PropertyTypeDescriptor : public AbstractPropertyTypeDescriptor {
public:
    class Storage : public PropertyStorage {
    public:
        explicit Storage(T value) : value(std::move(value)) {}
        const void* getValueSource() const override { return &value; }
        const T value;
    };

    PropertyTypeDescriptor(FixedString name, T defaultValue)
        : AbstractPropertyTypeDescriptor(name),
          defaultValue(std::move(defaultValue)) {}

    const T& getDefaultValue() const { return defaultValue; }
    const void* getDefaultValueSource() const override { return &defaultValue; }

private:
    T defaultValue;
};

class AbstractPropertyType {
public:
    AbstractPropertyType(unsigned int changeFlags, bool inherited, PropertyTypeEditorInfo* editorInfo)
        : changeFlags(changeFlags),
          inherited(inherited),
          editorInfo(editorInfo) {}
    virtual ~AbstractPropertyType();
    AbstractPropertyType(const AbstractPropertyType&) = delete;
    AbstractPropertyType& operator=(const AbstractPropertyType&) = delete;

    virtual AbstractPropertyTypeDescriptor& getDescriptor() const = 0;
    FixedString getName() const { return getDescriptor().getName(); }
    unsigned int getChangeFlags() const { return changeFlags; }
    bool isInherited() const { return inherited; }
    PropertyTypeEditorInfo* getEditorInfo() const { return editorInfo; }

private:
    unsigned int changeFlags;
    bool inherited;
    PropertyTypeEditorInfo* editorInfo;
};

template <typename T>
class PropertyType : public AbstractPropertyType {
public:
    PropertyType(FixedString name, T defaultValue, unsigned int changeFlags, bool inherited,
                 PropertyTypeEditorInfo* editorInfo)
        : AbstractPropertyType(changeFlags, inherited, editorInfo),
          descriptor(name, std::move(defaultValue)) {}

    PropertyTypeDescriptor<T>& getDescriptor() const override { return descriptor; }
    const T& getDefaultValue() const { return descriptor.getDefaultValue(); }

private:
    mutable PropertyTypeDescriptor<T> descriptor;
};

}  // namespace zarvo

#endif
