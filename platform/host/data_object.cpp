#include <zarvo/data_object.h>
#include <zarvo/host/statistics.h>

#include <atomic>

namespace zarvo {

namespace {

std::atomic<std::size_t> liveDataObjects{0};

}  // namespace

std::size_t liveDataObjectCount() {
    return liveDataObjects.load(std::memory_order_relaxed);
}

DataObject::DataObject(Domain* domain, string_view name) : DataContext(domain, name) {
    liveDataObjects.fetch_add(1, std::memory_order_relaxed);
}

DataObject::~DataObject() {
    liveDataObjects.fetch_sub(1, std::memory_order_relaxed);
}

const Metaclass* DataObject::getStaticMetaclass() {
    static const MetaclassAbstractImpl<DataObject> metaclass("Zarvo.DataObject", DataContext::getStaticMetaclass(),
                                                             true, {}, &DataContext::makeEditorInfo);
    return &metaclass;
}

const Metaclass* DataObject::getDynamicMetaclass() const {
    return getStaticMetaclass();
}

std::shared_ptr<DataObject> DataObject::getData() {
    // Null, not an exception, for an object that is (wrongly) not owned by a
    // shared pointer.
    return weak_from_this().lock();
}

std::shared_ptr<DataObject> DataObject::lookupDataContext(string_view path) {
    std::shared_ptr<DataObject> current = getData();
    while (current && !path.empty()) {
        const auto dot = path.find('.');
        current = current->findChild(path.substr(0, dot));
        path = dot == string_view::npos ? string_view() : path.substr(dot + 1);
    }
    return current;
}

DataObject::Type DataObject::getType() const {
    return TypeObject;
}

void DataObject::addChild(const std::shared_ptr<DataObject>& child) {
    // Records of a few fields are the common parent: room for them at once
    // spares the regrowth on the second and third child.
    if (children.capacity() == 0) {
        children.reserve(4);
    }
    children.push_back(child);
}

void DataObject::removeAllChildren() {
    // Children may hold the last reference to something that looks back at
    // this object while it goes; clear through a local, so that the list is
    // already empty then.
    std::vector<std::shared_ptr<DataObject>> old;
    old.swap(children);
}

std::shared_ptr<DataObject> DataObject::getChild(std::size_t index) const {
    return index < children.size() ? children[index] : nullptr;
}

std::shared_ptr<DataObject> DataObject::findChild(string_view name) const {
    for (const auto& child : children) {
        if (child && child->getObjectName() == name) {
            return child;
        }
    }
    return nullptr;
}

DataObjectList::DataObjectList(Domain* domain, string_view name) : DataObject(domain, name) {}

DataObjectList::~DataObjectList() = default;

}  // namespace zarvo
