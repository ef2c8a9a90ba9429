// A bounded map from text keys to objects, dropping the least recently
// used entry when a new one would pass the capacity. Objects stay at their
// address while they are in the cache.
#ifndef TETHRIX_SERVICE_LRU_CACHE_H
#define TETHRIX_SERVICE_LRU_CACHE_H

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace tethrix::service {

template <typename T>
class LruCache {
public:
    explicit LruCache(std::size_t capacity) : capacity(capacity) {}

    /// The entry for `key`, now the most recently used; null if absent.
    T* find(const std::string& key) {
        auto found = entries.find(key);
        if (found == entries.end())
            return nullptr;
        recent.splice(recent.begin(), recent, found->second.usage);
        return found->second.object.get();
    }

    /// Adds an entry for a key that is absent.
    T& insert(const std::string& key, std::unique_ptr<T> object) {
        if (entries.size() >= capacity && !recent.empty()) {
            entries.erase(recent.back());
            recent.pop_back();
        }
        recent.push_front(key);
        auto& entry = entries[key];
        entry.object = std::move(object);
        entry.usage = recent.begin();
        return *entry.object;
    }

    void clear() {
        entries.clear();
        recent.clear();
    }

    std::size_t size() const { return entries.size(); }

private:
    struct Entry {
        std::unique_ptr<T> object;
        std::list<std::string>::iterator usage;
    };

    std::size_t capacity;
    std::map<std::string, Entry> entries;
    std::list<std::string> recent;  ///< keys, most recently used first
};

}  // namespace tethrix::service

#endif
