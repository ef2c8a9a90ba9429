#include <zarvo/data_object.h>
#include <zarvo/host/statistics.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace zarvo {

namespace {

// The count of live data objects is kept per thread, so that making and
// dropping an object costs a plain store instead of a locked operation on
// one shared counter (rows are made and dropped by the thousand while a
// list scrolls). An object dropped on another thread than the one that made
// it counts down there; only the sum over all threads means anything.
class LiveCounts {
public:
    struct PerThread {
        std::atomic<std::int64_t> count{0};
        PerThread() { LiveCounts::instance().enter(this); }
        ~PerThread() { LiveCounts::instance().leave(this); }
        PerThread(const PerThread&) = delete;
        PerThread& operator=(const PerThread&) = delete;
    };

    static LiveCounts& instance() {
        // Never destroyed: threads may still end after static destruction.
        static LiveCounts* counts = new LiveCounts();
        return *counts;
    }

    static void add(std::int64_t delta) {
        thread_local PerThread own;
        own.count.store(own.count.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
    }

    std::size_t total() {
        std::lock_guard<std::mutex> lock(mutex);
        std::int64_t sum = ended;
        for (const PerThread* thread : threads) {
            sum += thread->count.load(std::memory_order_relaxed);
        }
        return sum > 0 ? static_cast<std::size_t>(sum) : 0;
    }

private:
    void enter(PerThread* thread) {
        std::lock_guard<std::mutex> lock(mutex);
        threads.push_back(thread);
    }
    void leave(PerThread* thread) {
        std::lock_guard<std::mutex> lock(mutex);
        ended += thread->count.load(std::memory_order_relaxed);
        for (auto it = threads.begin(); it != threads.end(); ++it) {
            if (*it == thread) {
                threads.erase(it);
                break;
            }
        }
    }

    std::mutex mutex;
    std::vector<PerThread*> threads;
    /// What the threads that have ended left behind.
    std::int64_t ended = 0;
};

}  // namespace

std::size_t liveDataObjectCount() {
    return LiveCounts::instance().total();
}

DataObject::DataObject(Domain* domain, string_view name) : DataContext(domain, name) {
    LiveCounts::add(1);
}

DataObject::~DataObject() {
    LiveCounts::add(-1);
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
