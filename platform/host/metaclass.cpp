#include <zarvo/metaclass.h>

#include <stdexcept>

namespace zarvo {

Metaclass::Metaclass() = default;

Metaclass::~Metaclass() = default;

void Metaclass::define(FixedString className, const Metaclass* baseClass, bool isAbstractClass,
                       std::initializer_list<const AbstractPropertyType*> ownPropertyTypes,
                       EditorInfoFunction makeEditorInfo) {
    name = className != nullptr ? className : "";
    base = baseClass;
    abstract = isAbstractClass;
    if (sealed) {
        return;
    }
    for (const AbstractPropertyType* type : ownPropertyTypes) {
        checkSealed();
        propertyTypes.push_back(type);
    }
    if (makeEditorInfo != nullptr) {
        editorInfo = makeEditorInfo();
    }
    checkSealed();
    checkSealed();
    sealed = true;
}

bool Metaclass::derivesFrom(const Metaclass& other) const {
    for (const Metaclass* current = this; current != nullptr; current = current->base) {
        if (current == &other) {
            return true;
        }
    }
    return false;
}

const AbstractPropertyType* Metaclass::findPropertyType(string_view typeName) const {
    for (const Metaclass* current = this; current != nullptr; current = current->base) {
        for (const AbstractPropertyType* type : current->propertyTypes) {
            if (type != nullptr && typeName == type->getName()) {
                return type;
            }
        }
    }
    return nullptr;
}

void Metaclass::checkSealed() const {
    if (sealed) {
        zvThrowException<std::logic_error>(std::string("Metaclass '") + name + "' is sealed and cannot change");
    }
}

namespace {

[[noreturn]] void throwAbstractCreate(FixedString name) {
    zvThrowException<std::logic_error>(std::string("Tried to create an abstract type object '") + name + "'");
}

}  // namespace

std::shared_ptr<Object> MetaclassAbstractBase::create(Domain*, string_view) const {
    throwAbstractCreate(getName());
}

bool MetaclassStaticBase::isMetaclassOf(const MetaObject&) const {
    return false;
}

std::shared_ptr<Object> MetaclassStaticBase::create(Domain*, string_view) const {
    throwAbstractCreate(getName());
}

}  // namespace zarvo
