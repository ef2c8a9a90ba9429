#include <zarvo/object.h>

#include <utility>

namespace zarvo {

MetaObject::~MetaObject() = default;

PropertyObject::~PropertyObject() = default;

void PropertyObject::onPropertyChanged(const AbstractPropertyType&, PropertyNotificationReason) {}

void PropertyObject::notifyPropertyHandlers(boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage>&,
                                            PropertyNotificationReason reason) {
    if (notifiedType != nullptr) {
        onPropertyChanged(*notifiedType, reason);
    }
}

const void* PropertyObject::getFinalValueSource(AbstractPropertyTypeDescriptor& descriptor) const {
    auto found = values.find(&descriptor);
    if (found == values.end() || !found->second) {
        return nullptr;
    }
    return found->second->getValueSource();
}

namespace {

// Sets the type being notified for the length of one notification; nested
// changes from inside a handler restore the outer one.
class NotifiedTypeScope {
public:
    NotifiedTypeScope(const AbstractPropertyType*& slot, const AbstractPropertyType& type)
        : slot(slot),
          previous(slot) {
        slot = &type;
    }
    ~NotifiedTypeScope() { slot = previous; }
    NotifiedTypeScope(const NotifiedTypeScope&) = delete;
    NotifiedTypeScope& operator=(const NotifiedTypeScope&) = delete;

private:
    const AbstractPropertyType*& slot;
    const AbstractPropertyType* previous;
};

}  // namespace

void PropertyObject::storeValue(const AbstractPropertyType& type,
                                boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage> storage) {
    values[&type.getDescriptor()] = storage;
    NotifiedTypeScope scope(notifiedType, type);
    notifyPropertyHandlers(storage, PropertyNotificationReason::ValueChanged);
}

void PropertyObject::clearValue(const AbstractPropertyType& type) {
    auto found = values.find(&type.getDescriptor());
    if (found == values.end()) {
        return;
    }
    values.erase(found);
    boost::intrusive_ptr<AbstractPropertyTypeDescriptor::PropertyStorage> none;
    NotifiedTypeScope scope(notifiedType, type);
    notifyPropertyHandlers(none, PropertyNotificationReason::ValueCleared);
}

Object::Object(Domain* domain, string_view name) : domain(domain), objectName(name.data(), name.size()) {}

Object::~Object() = default;

}  // namespace zarvo
