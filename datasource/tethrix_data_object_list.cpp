#include "datasource/tethrix_data_object_list.h"

#include "datasource/content_adapter.h"
#include "datasource/pooled_allocator.h"
#include "datasource/tethrix_runtime_data_object_list.h"

#include <zarvo/log.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

namespace zarvo {

namespace {

// Block numbers, index differences and query bounds are 32-bit quantities,
// while row indices are 64-bit; these two are where the widths meet.
std::int32_t narrow32(std::uint64_t value) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

std::uint64_t signExtend(std::int32_t value) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
}

// Five blocks' worth of rows is what the list aims to keep in all.
const std::uint64_t residentBlocks = 5;

// Rows live in chunks of this many consecutive indices.
const unsigned chunkShift = 8;
const std::uint64_t chunkRows = std::uint64_t(1) << chunkShift;

// Entries consumed from the front of the purge order, or taken out of it by
// a new reference, leave its storage once they are this many and half of
// it, which keeps the order amortised constant per entry and its storage
// near the entries that count.
const std::size_t orderCompactionMinimum = 256;

}  // namespace

struct TethrixDataObjectList::Cache::Chunk {
    Slot slots[chunkRows];
    /// Slots that hold a row or an entry of the purge order.
    std::size_t used = 0;
};

TethrixDataObjectList::Cache::Cache() = default;

TethrixDataObjectList::Cache::~Cache() = default;

TethrixDataObjectList::Cache::Slot* TethrixDataObjectList::Cache::find(std::uint64_t index) const {
    const std::uint64_t number = index >> chunkShift;
    if (number != lastChunkNumber) {
        const auto found = chunks.find(number);
        if (found == chunks.end()) {
            return nullptr;
        }
        lastChunkNumber = number;
        lastChunk = found->second.get();
    }
    return &lastChunk->slots[index & (chunkRows - 1)];
}

TethrixDataObjectList::Cache::Slot& TethrixDataObjectList::Cache::slotFor(std::uint64_t index) {
    if (Slot* slot = find(index)) {
        return *slot;
    }
    const std::uint64_t number = index >> chunkShift;
    std::unique_ptr<Chunk>& chunk = chunks[number];
    // A chunk given up holds nothing any more, so it serves again as it is.
    chunk = spareChunk ? std::move(spareChunk) : std::unique_ptr<Chunk>(new Chunk());
    lastChunkNumber = number;
    lastChunk = chunk.get();
    return lastChunk->slots[index & (chunkRows - 1)];
}

void TethrixDataObjectList::Cache::setState(Slot& slot, State state) {
    --counts[slot.state];
    ++counts[state];
    slot.state = state;
}

void TethrixDataObjectList::Cache::release(std::uint64_t index, Slot& slot) {
    if (slot.state != Absent || slot.firstEntry != noEntry) {
        return;
    }
    const std::uint64_t number = index >> chunkShift;
    const auto chunk = chunks.find(number);
    if (chunk == chunks.end() || --chunk->second->used != 0) {
        return;
    }
    if (lastChunkNumber == number) {
        lastChunkNumber = noEntry;
        lastChunk = nullptr;
    }
    if (!spareChunk) {
        spareChunk = std::move(chunk->second);
    }
    chunks.erase(chunk);
}

void TethrixDataObjectList::Cache::appendToOrder(std::uint64_t index, Slot& slot) {
    const std::uint64_t entry = orderBase + order.size();
    order.push_back(OrderEntry{index, noEntry, true});
    if (slot.lastEntry != noEntry) {
        entryAt(slot.lastEntry).nextOfRow = entry;
    } else {
        slot.firstEntry = entry;
    }
    slot.lastEntry = entry;
}

void TethrixDataObjectList::Cache::takeFirstEntry(Slot& slot) {
    OrderEntry& entry = entryAt(slot.firstEntry);
    entry.live = false;
    ++deadEntries;
    slot.firstEntry = entry.nextOfRow;
    if (slot.firstEntry == noEntry) {
        slot.lastEntry = noEntry;
    }
}

void TethrixDataObjectList::Cache::compactOrder() {
    // A list that never needs a purge would otherwise keep every entry that
    // a new reference took out. The live entries are laid out again in the
    // same order, and each row's links follow.
    std::vector<OrderEntry> live;
    live.reserve(order.size() - orderFront - deadEntries);
    for (std::size_t i = orderFront; i < order.size(); ++i) {
        if (order[i].live) {
            live.push_back(order[i]);
        }
    }
    for (const OrderEntry& entry : live) {
        Slot* slot = find(entry.index);
        slot->firstEntry = noEntry;
        slot->lastEntry = noEntry;
    }
    orderBase += order.size();
    order.clear();
    orderFront = 0;
    deadEntries = 0;
    for (const OrderEntry& entry : live) {
        appendToOrder(entry.index, *find(entry.index));
    }
}

bool TethrixDataObjectList::Cache::isLoaded(std::uint64_t index) const {
    const Slot* slot = find(index);
    return slot != nullptr && (slot->state == Referenced || slot->state == Unreferenced);
}

std::shared_ptr<DataObject> TethrixDataObjectList::Cache::getItem(Domain* domain, std::uint64_t index) {
    Slot& slot = slotFor(index);
    if (slot.state != Absent) {
        return slot.item;
    }
    if (slot.firstEntry == noEntry) {
        ++lastChunk->used;  // slotFor() left the row's chunk as the last one found
    }
    // "row" and the index in decimal, written in place: no string is made
    // on the way to the row's own name.
    char name[32] = "row";
    char* digits = std::end(name);
    std::uint64_t rest = index;
    do {
        *--digits = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    const std::size_t digitCount = static_cast<std::size_t>(std::end(name) - digits);
    std::memmove(name + 3, digits, digitCount);
    slot.item = makePooled<DataObject>(domain, string_view(name, 3 + digitCount));
    setState(slot, Created);
    return slot.item;
}

std::shared_ptr<DataObject> TethrixDataObjectList::Cache::referenceItem(Domain* domain, std::uint64_t index) {
    Slot* slot = find(index);
    if (slot == nullptr || slot->state == Absent) {
        getItem(domain, index);
        slot = find(index);
    }
    if (slot->state != Referenced) {
        setState(*slot, Referenced);
    }
    notifyReferenced(index);
    return slot->item;
}

std::uint64_t TethrixDataObjectList::Cache::unreferenceItem(std::uint64_t index) {
    Slot* slot = find(index);
    if (slot == nullptr || slot->state != Referenced) {
        return 0;
    }
    const std::uint64_t remaining = notifyUnreferenced(index);
    if (remaining != 0) {
        return remaining;
    }
    // The row keeps whatever data it has, even none: it now counts as
    // loaded until it is purged or the adapter fills it.
    setState(*slot, Unreferenced);
    return 0;
}

void TethrixDataObjectList::Cache::notifyReferenced(std::uint64_t index) {
    Slot* slot = find(index);
    if (slot == nullptr) {
        return;
    }
    if (slot->firstEntry != noEntry) {
        takeFirstEntry(*slot);
    }
    ++slot->references;
    release(index, *slot);
    if (deadEntries >= orderCompactionMinimum && deadEntries * 2 >= order.size() - orderFront) {
        compactOrder();
    }
}

std::uint64_t TethrixDataObjectList::Cache::notifyUnreferenced(std::uint64_t index) {
    Slot* slot = find(index);
    if (slot == nullptr) {
        return 0;
    }
    std::uint64_t remaining = 0;
    if (slot->references > 1) {
        remaining = --slot->references;
    } else {
        slot->references = 0;
    }
    // Appended even while references remain: purge() skips a row that is
    // still referenced, and each later reference removes one occurrence only.
    appendToOrder(index, *slot);
    return remaining;
}

void TethrixDataObjectList::Cache::notifyLoaded(std::uint64_t index) {
    Slot* slot = find(index);
    if (slot == nullptr || slot->state != Created) {
        return;
    }
    setState(*slot, Unreferenced);
    notifyUnreferenced(index);
}

void TethrixDataObjectList::Cache::unreferenceAll() {
    std::size_t left = counts[Referenced];
    for (auto chunk = chunks.begin(); left != 0 && chunk != chunks.end(); ++chunk) {
        const std::uint64_t first = chunk->first << chunkShift;
        Slot* slots = chunk->second->slots;
        for (std::uint64_t i = 0; left != 0 && i < chunkRows; ++i) {
            if (slots[i].state != Referenced) {
                continue;
            }
            setState(slots[i], Unreferenced);
            appendToOrder(first + i, slots[i]);
            slots[i].references = 0;
            --left;
        }
    }
}

void TethrixDataObjectList::Cache::purge(std::uint64_t count) {
    std::int32_t left = narrow32(count);
    while (left > 0 && orderFront < order.size()) {
        const OrderEntry entry = order[orderFront++];
        if (!entry.live) {
            --deadEntries;
            continue;  // taken out by a later reference
        }
        Slot* owner = find(entry.index);
        owner->firstEntry = entry.nextOfRow;
        if (owner->firstEntry == noEntry) {
            owner->lastEntry = noEntry;
        }
        const std::uint64_t target = signExtend(narrow32(entry.index));
        Slot* victim = target == entry.index ? owner : find(target);
        // Goes when this pass ends, after the bookkeeping.
        std::shared_ptr<DataObject> dropped;
        if (victim != nullptr && victim->state == Unreferenced) {
            dropped = std::move(victim->item);
            setState(*victim, Absent);
            --left;
        }
        if (victim != nullptr && victim != owner) {
            release(target, *victim);
            owner = find(entry.index);
        }
        release(entry.index, *owner);
    }
    if (orderFront >= orderCompactionMinimum && orderFront * 2 >= order.size()) {
        order.erase(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(orderFront));
        orderBase += orderFront;
        orderFront = 0;
    }
}

void TethrixDataObjectList::Cache::clear() {
    // Rows made for the adapter and not yet delivered stay: the adapter is
    // about to fill them and reuses them as they are.
    std::vector<std::shared_ptr<DataObject>> dropped;
    for (auto chunk = chunks.begin(); chunk != chunks.end();) {
        std::size_t used = 0;
        for (Slot& slot : chunk->second->slots) {
            if (slot.state == Referenced || slot.state == Unreferenced) {
                dropped.push_back(std::move(slot.item));
                setState(slot, Absent);
            }
            slot.references = 0;
            slot.firstEntry = noEntry;
            slot.lastEntry = noEntry;
            used += slot.state == Created ? 1 : 0;
        }
        chunk->second->used = used;
        chunk = used == 0 ? chunks.erase(chunk) : std::next(chunk);
    }
    lastChunkNumber = noEntry;
    lastChunk = nullptr;
    orderBase += order.size();
    order.clear();
    orderFront = 0;
    deadEntries = 0;
}

TethrixDataObjectList::Cache::ItemMap TethrixDataObjectList::Cache::collect(State state) const {
    ItemMap items;
    for (const auto& chunk : chunks) {
        for (std::uint64_t i = 0; i < chunkRows; ++i) {
            if (chunk.second->slots[i].state == state) {
                items.emplace_hint(items.end(), (chunk.first << chunkShift) + i, chunk.second->slots[i].item);
            }
        }
    }
    return items;
}

std::vector<std::uint64_t> TethrixDataObjectList::Cache::getUnreferencedOrder() const {
    std::vector<std::uint64_t> indices;
    for (std::size_t i = orderFront; i < order.size(); ++i) {
        if (order[i].live) {
            indices.push_back(order[i].index);
        }
    }
    return indices;
}

std::shared_ptr<DataObject> TethrixDataObjectList::Cache::lowestReferencedItem() const {
    if (counts[Referenced] == 0) {
        return nullptr;
    }
    for (const auto& chunk : chunks) {
        for (const Slot& slot : chunk.second->slots) {
            if (slot.state == Referenced) {
                return slot.item;
            }
        }
    }
    return nullptr;
}

TethrixDataObjectList::TethrixDataObjectList(Domain* domain, string_view name, std::shared_ptr<ContentAdapter> adapter,
                                             unsigned long blockSize)
    : DataObjectList(domain, name),
      contentAdapter(std::move(adapter)),
      blockSize(blockSize),
      preloadedBlock(-1),
      loading(false),
      preloadRequested(false),
      itemCountChanged(true),
      lastIndex(0),
      lastIndexDelta(1),
      loadedSinceProgress(0),
      knownItemCount(0) {}

std::size_t TethrixDataObjectList::itemCount() {
    return knownItemCount;
}

std::shared_ptr<DataObject> TethrixDataObjectList::acquireItem(std::size_t index) {
    const bool wasLoaded = cache.isLoaded(index);
    auto item = cache.referenceItem(getDomain(), index);
    lastIndexDelta = narrow32(index - lastIndex);
    lastIndex = index;
    if (!wasLoaded) {
        addToLoadingQueue(index);
        return item;
    }
    if (blockSize != 0) {
        // The block that holds the row half a block ahead.
        const std::uint64_t aheadBlock = (index + blockSize / 2) / blockSize;
        if (preloadedBlock < narrow32(aheadBlock)) {
            preloadRequested = true;
            progressLoadingQueue();
        }
    }
    return item;
}

void TethrixDataObjectList::releaseItem(std::size_t index) {
    // An unpaged list never gives references back and never purges.
    if (blockSize == 0) {
        return;
    }
    if (cache.unreferenceItem(index) == 0) {
        // Nobody wants the row any more, so it is no reason for a load.
        removeFromLoadingQueue(index);
    }
    const std::uint64_t total = cache.residentItemCount();
    const std::uint64_t limit = residentBlocks * blockSize;
    if (limit < total) {
        cache.purge(total - limit);
    }
}

std::shared_ptr<DataObject> TethrixDataObjectList::getItemTemplate() {
    if (std::shared_ptr<DataObject> lowest = cache.lowestReferencedItem()) {
        return lowest;
    }
    if (contentAdapter) {
        std::shared_ptr<DataObject> itemTemplate = contentAdapter->getItemTemplate();
        if (itemTemplate) {
            return itemTemplate;
        }
        // A list field whose source is a single record has no row template;
        // the engine is never handed a null one. A runtime source's key list
        // has none either, by design: its rows come from the dynamic source.
        if (!contentAdapter->getConfig()->runtimeData) {
            ZARVO_LOG_ERROR("tethrix",
                            "TethrixDataObjectList::getItemTemplate(): the source '{}' of list '{}' has no row "
                            "template; is it a single record?",
                            contentAdapter->getConfig()->name, getName());
        }
    }
    return std::make_shared<DataObject>(getDomain(), "empty");
}

std::shared_ptr<DataObject> TethrixDataObjectList::getItem(std::uint64_t index) {
    return cache.getItem(getDomain(), index);
}

void TethrixDataObjectList::notifyItemLoaded(std::uint64_t index, std::shared_ptr<DataObject> item) {
    ++loadedSinceProgress;
    if (knownItemCount <= index) {
        knownItemCount = index + 1;
        itemCountChanged = true;
    }
    cache.notifyLoaded(index);
    removeFromLoadingQueue(index);
    if (item) {
        // The adapter writes the values right after this; each value object
        // reports its own change.
        item->notifyModified();
    }
}

void TethrixDataObjectList::notifyLoadingFinished() {
    loading = false;
    readAheadLoading = false;
    const bool countChanged = itemCountChanged;
    // The next load goes out before the UI hears of this one.
    progressLoadingQueue();
    if (!countChanged) {
        return;
    }
    // A grown list has the UI bind its rows afresh; rows keep their objects
    // and data, only the reference bookkeeping restarts.
    cache.unreferenceAll();
    notifyModified();
}

void TethrixDataObjectList::removeAllItems() {
    cache.clear();
    loadingQueue.clear();
    knownItemCount = 0;
    itemCountChanged = true;
}

void TethrixDataObjectList::addToLoadingQueue(std::uint64_t index) {
    loadingQueue.insert(index);
    progressLoadingQueue();
}

void TethrixDataObjectList::removeFromLoadingQueue(std::uint64_t index) {
    loadingQueue.erase(index);
}

void TethrixDataObjectList::progressLoadingQueue() {
    // One load at a time; what is asked for meanwhile waits in the queue or
    // in preloadRequested.
    if (loading) {
        return;
    }
    itemCountChanged = false;
    loadedSinceProgress = 0;
    if (!loadingQueue.empty()) {
        if (blockSize == 0) {
            return;
        }
        // The lowest waiting row decides, however recently it was asked for.
        // preloadedBlock stays as it is, so read-ahead may later ask for this
        // block once more; that repeat is what brings a first full block in.
        const std::uint64_t first = *loadingQueue.begin();
        if (!hasAdapterToLoad(first)) {
            return;
        }
        preloadRequested = true;
        loading = contentAdapter->loadItems(blockSize * (first / blockSize), blockSize);
        readAheadLoading = false;
        return;
    }
    if (!preloadRequested) {
        return;
    }
    preloadRequested = false;
    // Read ahead only while the UI moves forward or stands still.
    if (blockSize == 0 || lastIndexDelta < 0) {
        return;
    }
    const std::uint64_t next = signExtend(narrow32(lastIndex + 1)) / blockSize;
    if (narrow32(next) <= preloadedBlock || !hasAdapterToLoad(next * blockSize)) {
        return;
    }
    const std::int32_t previousBlock = preloadedBlock;
    preloadedBlock = narrow32(next);
    loading = contentAdapter->loadItems(signExtend(narrow32(next * blockSize)), blockSize);
    readAheadLoading = loading;
    if (!loading) {
        // No loader (the connection is down): a block that was never asked
        // for would otherwise never be asked for, and a view that shows the
        // end of the list would wait for it for ever. It is asked for on the
        // next pass instead.
        preloadedBlock = previousBlock;
        preloadRequested = true;
    }
}

void TethrixDataObjectList::notifyLoadDropped() {
    if (!loading) {
        return;
    }
    // The adapter stopped (the connection went) with this list's load under
    // way: no answer will come. Without this the list would wait for ever,
    // or, for a read-ahead block, never ask for that block again.
    ZARVO_LOG_INFO("tethrix", "TethrixDataObjectList: the load of list '{}' went with its loader; it is asked again",
                   getName());
    loading = false;
    if (readAheadLoading) {
        --preloadedBlock;
    }
    readAheadLoading = false;
    preloadRequested = true;
}

bool TethrixDataObjectList::hasAdapterToLoad(std::uint64_t index) {
    if (contentAdapter) {
        return true;
    }
    // Rows past the count of a list without an adapter (one whose source
    // was not found, or one let go by releaseAdapters) cannot be loaded.
    ZARVO_LOG_ERROR("tethrix", "TethrixDataObjectList: list '{}' has no source to load row {} from", getName(), index);
    return false;
}

void TethrixDataObjectList::releaseAdapters(const std::shared_ptr<DataObject>& tree) {
    if (!tree) {
        return;
    }
    if (auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(tree)) {
        const std::shared_ptr<ContentAdapter> adapter = std::move(list->contentAdapter);
        list->contentAdapter.reset();
        for (const auto& rows :
             {list->cache.getCreatedItems(), list->cache.getUnreferencedItems(), list->cache.getReferencedItems()}) {
            for (const auto& row : rows) {
                releaseAdapters(row.second);
            }
        }
        // The row template is in no tree, and its list fields hold adapters.
        if (adapter) {
            releaseAdapters(adapter->getItemTemplate());
        }
    }
    if (auto runtimeList = std::dynamic_pointer_cast<TethrixRuntimeDataObjectList>(tree)) {
        runtimeList->releaseRuntimeList();
    }
    for (std::size_t i = 0; i < tree->getChildCount(); ++i) {
        releaseAdapters(tree->getChild(i));
    }
}

}  // namespace zarvo
