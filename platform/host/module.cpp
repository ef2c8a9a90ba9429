#include <zarvo/module.h>

#include <stdexcept>

namespace zarvo {

void ObjectFactory::registerMetaclass(const Metaclass* metaclass) {
    if (metaclass == nullptr) {
        return;
    }
    metaclasses[metaclass->getName()] = metaclass;
}

const Metaclass* ObjectFactory::findMetaclass(string_view typeName) const {
    auto found = metaclasses.find(typeName);
    return found != metaclasses.end() ? found->second : nullptr;
}

std::shared_ptr<Object> ObjectFactory::create(string_view typeName, Domain* domain, string_view name) const {
    const Metaclass* metaclass = findMetaclass(typeName);
    if (metaclass == nullptr) {
        zvThrowException<std::logic_error>("Unknown object type '" + std::string(typeName.data(), typeName.size()) +
                                           "': no metaclass of that name is registered");
    }
    return metaclass->create(domain, name);
}

std::vector<const Metaclass*> ObjectFactory::getMetaclasses() const {
    std::vector<const Metaclass*> result;
    result.reserve(metaclasses.size());
    for (const auto& entry : metaclasses) {
        result.push_back(entry.second);
    }
    return result;
}

std::vector<const Metaclass*> Module::getMetaclassesOverride() {
    return {};
}

void Module::destroy() {
    delete this;
}

void Module::registerMetadataOverride(ObjectFactory&) {}

Module::~Module() = default;

void destroyModule(Module* module) {
    if (module != nullptr) {
        module->destroy();
    }
}

}  // namespace zarvo
