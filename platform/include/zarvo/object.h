// The root of the engine's object tree.
#ifndef ZARVO_OBJECT_H
#define ZARVO_OBJECT_H

#include <zarvo/property.h>
#include <zarvo/string_view.h>

#include <map>
#include <string>

namespace zarvo {

class Domain;
class Metaclass;

/// Anything with a metaclass.
class MetaObject {
public:
    virtual ~MetaObject();
    virtual const Metaclass* getDynamicMetaclass() const = 0;
};

/// Anything that holds property values.
class PropertyObject {
public:
    virtual ~PropertyObject();

    /// Called after a property's value changed on this object.
    virtual void onPropertyChanged(const AbstractPropertyType& type, PropertyNotificationReason reason);
    /// Tells this object's handlers that `storage` is the property's new cell.
    virtual void notifyPropertyHandlers(boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage>& storage,
                                        PropertyNotificationReason reason);

    /// Points at this object's current value of the property, or null if the
    /// object has none of its own (the descriptor's default then stands).
    const void* getFinalValueSource(AbstractPropertyTypeDescriptor& descriptor) const;

    /// Host side: sets this object's value of a property.
    template <typename T>
    void setValue(const PropertyType<T>& type, T value) {
        boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage> storage(
            new typename PropertyTypeDescriptor<T>::Storage(std::move(value)));
        storeValue(type, storage);
    }
    /// Host side: the current value, or the default.
    template <typename T>
    const T& getValue(const PropertyType<T>& type) const {
        const void* source = getFinalValueSource(type.getDescriptor());
        return source != nullptr ? *static_cast<const T*>(source) : type.getDefaultValue();
    }
    /// Host side: drops this object's own value, so the default stands again.
    void clearValue(const AbstractPropertyType& type);

private:
    void storeValue(const AbstractPropertyType& type,
                    boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage> storage);

    std::map<const AbstractPropertyTypeDescriptor*,
             boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage>>
        values;
    // The type whose change notifyPropertyHandlers() is telling, so that it
    // can pass it on to onPropertyChanged().
    const AbstractPropertyType* notifiedType = nullptr;
};

class Object : public MetaObject, public PropertyObject {
public:
    Object(Domain* domain, string_view name);
    ~Object() override;

    Domain* getDomain() const { return domain; }
    /// The object's name, as given at construction.
    const std::string& getObjectName() const { return objectName; }

private:
    Domain* domain;
    std::string objectName;
};

}  // namespace zarvo

#endif
