#include "datasource/tethrix_data_object_list.h"

#include "datasource/content_adapter.h"
#include "datasource/tethrix_runtime_data_object_list.h"

#include <zarvo/log.h>

#include <boost/lexical_cast.hpp>

#include <algorithm>
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

}  // namespace

bool TethrixDataObjectList::Cache::isLoaded(std::uint64_t index) const {
    return referencedItems.count(index) != 0 || unreferencedItems.count(index) != 0;
}

std::shared_ptr<DataObject> TethrixDataObjectList::Cache::getItem(Domain* domain, std::uint64_t index) {
    for (ItemMap* items : {&referencedItems, &unreferencedItems, &createdItems}) {
        const auto found = items->find(index);
        if (found != items->end()) {
            return found->second;
        }
    }
    auto item = std::make_shared<DataObject>(domain, "row" + boost::lexical_cast<std::string>(index));
    createdItems.emplace(index, item);
    return item;
}

std::shared_ptr<DataObject> TethrixDataObjectList::Cache::referenceItem(Domain* domain, std::uint64_t index) {
    const auto referenced = referencedItems.find(index);
    if (referenced != referencedItems.end()) {
        notifyReferenced(index);
        return referenced->second;
    }
    std::shared_ptr<DataObject> item;
    const auto unreferenced = unreferencedItems.find(index);
    if (unreferenced != unreferencedItems.end()) {
        item = std::move(unreferenced->second);
        unreferencedItems.erase(unreferenced);
    } else {
        item = getItem(domain, index);
        createdItems.erase(index);
    }
    referencedItems.emplace(index, item);
    notifyReferenced(index);
    return item;
}

std::uint64_t TethrixDataObjectList::Cache::unreferenceItem(std::uint64_t index) {
    const auto referenced = referencedItems.find(index);
    if (referenced == referencedItems.end()) {
        return 0;
    }
    const std::uint64_t remaining = notifyUnreferenced(index);
    if (remaining != 0) {
        return remaining;
    }
    // The row keeps whatever data it has, even none: it now counts as
    // loaded until it is purged or the adapter fills it.
    unreferencedItems[index] = std::move(referenced->second);
    referencedItems.erase(referenced);
    return 0;
}

void TethrixDataObjectList::Cache::notifyReferenced(std::uint64_t index) {
    const auto found = std::find(unreferencedOrder.begin(), unreferencedOrder.end(), index);
    if (found != unreferencedOrder.end()) {
        unreferencedOrder.erase(found);
    }
    ++referenceCounts[index];
}

std::uint64_t TethrixDataObjectList::Cache::notifyUnreferenced(std::uint64_t index) {
    std::uint64_t remaining = 0;
    const auto count = referenceCounts.find(index);
    if (count != referenceCounts.end()) {
        if (count->second <= 1) {
            referenceCounts.erase(count);
        } else {
            remaining = --count->second;
        }
    }
    // Appended even while references remain: purge() skips a row that is
    // still referenced, and each later reference removes one occurrence only.
    unreferencedOrder.push_back(index);
    return remaining;
}

void TethrixDataObjectList::Cache::notifyLoaded(std::uint64_t index) {
    const auto created = createdItems.find(index);
    if (created == createdItems.end()) {
        return;
    }
    unreferencedItems[index] = std::move(created->second);
    createdItems.erase(created);
    notifyUnreferenced(index);
}

void TethrixDataObjectList::Cache::unreferenceAll() {
    for (auto& entry : referencedItems) {
        unreferencedItems[entry.first] = std::move(entry.second);
        notifyUnreferenced(entry.first);
    }
    referencedItems.clear();
    referenceCounts.clear();
}

void TethrixDataObjectList::Cache::purge(std::uint64_t count) {
    std::int32_t left = narrow32(count);
    std::size_t consumed = 0;
    while (left > 0 && consumed < unreferencedOrder.size()) {
        const std::uint64_t index = signExtend(narrow32(unreferencedOrder[consumed]));
        ++consumed;
        if (unreferencedItems.erase(index) != 0) {
            --left;
        }
    }
    // One erase for all consumed entries keeps a purge linear, however many
    // rows it drops.
    unreferencedOrder.erase(unreferencedOrder.begin(),
                            unreferencedOrder.begin() + static_cast<std::ptrdiff_t>(consumed));
}

void TethrixDataObjectList::Cache::clear() {
    // Rows made for the adapter and not yet delivered stay: the adapter is
    // about to fill them and reuses them as they are.
    referencedItems.clear();
    unreferencedItems.clear();
    referenceCounts.clear();
    unreferencedOrder.clear();
}

TethrixDataObjectList::TethrixDataObjectList(Domain* domain, string_view name,
                                             std::shared_ptr<ContentAdapter> adapter, unsigned long blockSize)
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
    const auto& referenced = cache.getReferencedItems();
    if (!referenced.empty() && referenced.begin()->second) {
        return referenced.begin()->second;
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
    ZARVO_LOG_ERROR("tethrix", "TethrixDataObjectList: list '{}' has no source to load row {} from", getName(),
                    index);
    return false;
}

void TethrixDataObjectList::releaseAdapters(const std::shared_ptr<DataObject>& tree) {
    if (!tree) {
        return;
    }
    if (auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(tree)) {
        const std::shared_ptr<ContentAdapter> adapter = std::move(list->contentAdapter);
        list->contentAdapter.reset();
        for (const auto* rows : {&list->cache.getCreatedItems(), &list->cache.getUnreferencedItems(),
                                 &list->cache.getReferencedItems()}) {
            for (const auto& row : *rows) {
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
