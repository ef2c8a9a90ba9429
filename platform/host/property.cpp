#include <zarvo/property.h>

namespace zarvo {

AbstractPropertyTypeDescriptor::PropertyStorage::~PropertyStorage() = default;

AbstractPropertyTypeDescriptor::~AbstractPropertyTypeDescriptor() = default;

AbstractPropertyType::~AbstractPropertyType() = default;

void intrusive_ptr_add_ref(AbstractPropertyTypeDescriptor::PropertyStorage* storage) {
    storage->referenceCount.fetch_add(1, std::memory_order_relaxed);
}

void intrusive_ptr_release(AbstractPropertyTypeDescriptor::PropertyStorage* storage) {
    if (storage->referenceCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete storage;
    }
}

}  // namespace zarvo
