// An allocator for the data objects that the plug-in makes and drops by the
// block: rows and their field objects. A scrolling list drops a block's worth
// of rows at a purge and makes a block's worth when the next block comes;
// keeping the freed blocks of memory on a bounded list per object type hands
// them straight to the next rows instead of going through the general heap
// each time. Objects stay made with std::allocate_shared: one allocation,
// the shared-from-this link set, freed when the last owner lets go.
#ifndef ZARVO_DATASOURCE_POOLED_ALLOCATOR_H
#define ZARVO_DATASOURCE_POOLED_ALLOCATOR_H

#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace zarvo {

template <typename T>
class PooledAllocator {
public:
    using value_type = T;

    /// Freed blocks kept per object type and thread; past it a block goes
    /// back to the heap. What a list purges at once (five blocks of 200 rows
    /// at most) fits.
    static const std::size_t maxKeptBlocks = 1024;

    PooledAllocator() = default;
    template <typename U>
    PooledAllocator(const PooledAllocator<U>&) {}

    T* allocate(std::size_t n) {
        if (n == 1 && poolEnabled && !blocksGone()) {
            std::vector<void*>& kept = freeBlocks().blocks;
            if (!kept.empty()) {
                void* block = kept.back();
                kept.pop_back();
                return static_cast<T*>(block);
            }
        }
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }

    void deallocate(T* pointer, std::size_t n) {
        if (n == 1 && poolEnabled && !blocksGone()) {
            std::vector<void*>& kept = freeBlocks().blocks;
            if (kept.size() < maxKeptBlocks) {
                if (kept.capacity() == 0) {
                    kept.reserve(maxKeptBlocks);
                }
                kept.push_back(pointer);
                return;
            }
        }
        ::operator delete(pointer);
    }

    template <typename U>
    bool operator==(const PooledAllocator<U>&) const {
        return true;
    }
    template <typename U>
    bool operator!=(const PooledAllocator<U>&) const {
        return false;
    }

private:
    // Each thread keeps its own blocks, so that nothing is shared and
    // nothing locks; a block freed on another thread simply joins that
    // thread's list.
    struct FreeBlocks {
        std::vector<void*> blocks;
        ~FreeBlocks() {
            blocksGone() = true;
            for (void* block : blocks) {
                ::operator delete(block);
            }
        }
    };

    // Set once the thread's list has gone: objects that outlive it (held by
    // static storage, destroyed after the thread's own) use the heap alone.
    // A plain flag, so that it can still be read then.
    static bool& blocksGone() {
        static thread_local bool gone = false;
        return gone;
    }

    static FreeBlocks& freeBlocks() {
        static thread_local FreeBlocks kept;
        return kept;
    }

#if defined(__SANITIZE_ADDRESS__)
    // Under the address sanitizer every block goes back to the heap, so that
    // a use after free is still caught.
    static const bool poolEnabled = false;
#else
    static const bool poolEnabled = true;
#endif
};

/// std::make_shared through the pool.
template <typename T, typename... Arguments>
std::shared_ptr<T> makePooled(Arguments&&... arguments) {
    return std::allocate_shared<T>(PooledAllocator<T>(), std::forward<Arguments>(arguments)...);
}

}  // namespace zarvo

#endif
