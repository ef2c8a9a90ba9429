// The list that UI nodes bind to for the rows of a content query. It keeps
// the rows the UI references plus a bounded reserve of rows it may need again,
// and asks its adapter for further rows one block at a time, in the order the
// UI asks for them. The number of rows on the service is never known: the
// count is the highest delivered row index plus one, so the list grows as
// blocks arrive.
#ifndef ZARVO_DATASOURCE_TETHRIX_DATA_OBJECT_LIST_H
#define ZARVO_DATASOURCE_TETHRIX_DATA_OBJECT_LIST_H

#include <zarvo/data_object.h>
#include <zarvo/string_view.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace zarvo {

class ContentAdapter;
class Domain;

class TethrixDataObjectList : public DataObjectList {
public:
    /// Owns the rows and decides which of them may go.
    ///
    /// A row index stands in at most one of the three row sets (created,
    /// unreferenced, referenced). Rows that are referenced or unreferenced
    /// count as loaded, whether or not their data have arrived: a referenced
    /// row is already queued, and a second acquire must not queue it again.
    ///
    /// The rows live in slots of fixed-size chunks, so that a row changes set
    /// by a change of its state, with no node made or freed, and a scrolling
    /// UI finds its rows in the chunk it used last. The purge order is an
    /// array consumed from the front; each row knows its own occurrences in
    /// it, so that taking out the oldest one costs no search.
    class Cache {
    public:
        using ItemMap = std::map<std::uint64_t, std::shared_ptr<DataObject>>;

        Cache();
        ~Cache();
        Cache(const Cache&) = delete;
        Cache& operator=(const Cache&) = delete;

        bool isLoaded(std::uint64_t index) const;
        /// The row, made empty in the created set if no set has it. Takes no
        /// reference.
        std::shared_ptr<DataObject> getItem(Domain* domain, std::uint64_t index);
        /// The row, moved to the referenced set, with one more reference.
        std::shared_ptr<DataObject> referenceItem(Domain* domain, std::uint64_t index);
        /// Drops one reference; gives the references left (0 also for a row
        /// that was not referenced).
        std::uint64_t unreferenceItem(std::uint64_t index);
        void notifyReferenced(std::uint64_t index);
        std::uint64_t notifyUnreferenced(std::uint64_t index);
        /// A row made for the adapter becomes purgeable once delivered.
        void notifyLoaded(std::uint64_t index);
        /// Forgets every reference; the rows stay, now purgeable.
        void unreferenceAll();
        /// Drops up to `count` unreferenced rows, oldest first.
        void purge(std::uint64_t count);
        /// Forgets every row except those in the created set.
        void clear();

        // Diagnostics for tests and measurements: copies, in index order.
        ItemMap getCreatedItems() const { return collect(Created); }
        ItemMap getUnreferencedItems() const { return collect(Unreferenced); }
        ItemMap getReferencedItems() const { return collect(Referenced); }
        /// The purge order, oldest first; may hold stale and repeated entries.
        std::vector<std::uint64_t> getUnreferencedOrder() const;
        std::size_t residentItemCount() const { return counts[Created] + counts[Unreferenced] + counts[Referenced]; }
        /// The referenced row with the lowest index; null if there is none.
        std::shared_ptr<DataObject> lowestReferencedItem() const;

    private:
        enum State : unsigned char { Absent, Created, Unreferenced, Referenced, StateCount };

        static const std::uint64_t noEntry = ~static_cast<std::uint64_t>(0);

        struct Slot {
            std::shared_ptr<DataObject> item;
            /// References from the UI; 0 stands for no entry.
            std::uint64_t references = 0;
            /// This row's oldest and newest entry in the purge order.
            std::uint64_t firstEntry = noEntry;
            std::uint64_t lastEntry = noEntry;
            State state = Absent;
        };
        struct Chunk;
        struct OrderEntry {
            std::uint64_t index;
            /// The next entry of the same row, or noEntry.
            std::uint64_t nextOfRow;
            /// False once taken out by a new reference.
            bool live;
        };

        Slot* find(std::uint64_t index) const;
        Slot& slotFor(std::uint64_t index);
        void setState(Slot& slot, State state);
        /// Frees the row's chunk once no slot in it holds anything.
        void release(std::uint64_t index, Slot& slot);
        void appendToOrder(std::uint64_t index, Slot& slot);
        /// Takes out the row's oldest entry of the purge order.
        void takeFirstEntry(Slot& slot);
        /// Drops the entries taken out from the purge order's storage.
        void compactOrder();
        ItemMap collect(State state) const;
        OrderEntry& entryAt(std::uint64_t entry) { return order[static_cast<std::size_t>(entry - orderBase)]; }

        std::map<std::uint64_t, std::unique_ptr<Chunk>> chunks;
        /// One emptied chunk kept for the next, as a jumping UI empties and
        /// fills chunks by turns.
        std::unique_ptr<Chunk> spareChunk;
        /// The chunk found last; most look-ups of a scrolling UI hit it.
        mutable std::uint64_t lastChunkNumber = noEntry;
        mutable Chunk* lastChunk = nullptr;
        std::size_t counts[StateCount] = {};
        /// Purge order, oldest first, from `orderFront` on; entry numbers
        /// count from `orderBase`, the first one still stored.
        std::vector<OrderEntry> order;
        std::uint64_t orderBase = 0;
        std::size_t orderFront = 0;
        /// Entries from `orderFront` on that a new reference took out.
        std::size_t deadEntries = 0;
    };

    /// `blockSize` 0 makes a list that is not paged: the adapter fills it by
    /// itself, and nothing is requested, released or purged.
    TethrixDataObjectList(Domain* domain, string_view name, std::shared_ptr<ContentAdapter> adapter,
                          unsigned long blockSize);

    std::size_t itemCount() override;
    /// Never null, never waits: a row not yet loaded is given empty and is
    /// filled in place when its block arrives.
    std::shared_ptr<DataObject> acquireItem(std::size_t index) override;
    void releaseItem(std::size_t index) override;
    std::shared_ptr<DataObject> getItemTemplate() override;

    /// The row for the adapter to fill; takes no reference.
    std::shared_ptr<DataObject> getItem(std::uint64_t index);
    /// Called by the adapter for each delivered row, before it writes the
    /// row's values.
    void notifyItemLoaded(std::uint64_t index, std::shared_ptr<DataObject> item);
    /// Called by the adapter once per result, applied or refused.
    void notifyLoadingFinished();
    /// Called by the adapter when it stops while this list's load is under
    /// way: its answer will not come, so the load is asked for again later.
    void notifyLoadDropped();
    /// Forgets the rows and the queue. Sends no notice: the caller ends its
    /// work with notifyLoadingFinished(), which reports the change.
    void removeAllItems();

    void addToLoadingQueue(std::uint64_t index);
    void removeFromLoadingQueue(std::uint64_t index);
    void progressLoadingQueue();

    // Diagnostics: read-only views for tests and measurements.
    const Cache& getCache() const { return cache; }
    const std::shared_ptr<ContentAdapter>& getContentAdapter() const { return contentAdapter; }

    /// For a data source that throws its tree away (unload, reload): a list
    /// and its adapter hold each other, and so do a runtime list and its
    /// mirror, so every such link below `tree` is let go here, row templates
    /// included. The objects keep their children and values; a list left
    /// without its adapter loads nothing more.
    static void releaseAdapters(const std::shared_ptr<DataObject>& tree);
    bool isLoading() const { return loading; }
    const std::set<std::uint64_t>& getLoadingQueue() const { return loadingQueue; }

private:
    /// False, with an error, for a list that has no adapter.
    bool hasAdapterToLoad(std::uint64_t index);

    std::shared_ptr<ContentAdapter> contentAdapter;
    std::uint64_t blockSize;
    /// Highest block requested by read-ahead; only ever grows.
    std::int32_t preloadedBlock;
    /// A load is out and notifyLoadingFinished() has not yet come for it.
    bool loading;
    bool preloadRequested;
    /// The load under way is the read-ahead of block preloadedBlock.
    bool readAheadLoading = false;
    bool itemCountChanged;
    std::uint64_t lastIndex;
    /// Its sign is the scroll direction.
    std::int32_t lastIndexDelta;
    std::uint64_t loadedSinceProgress;
    std::uint64_t knownItemCount;
    Cache cache;
    /// Rows the UI wants that no load has delivered yet.
    std::set<std::uint64_t> loadingQueue;
};

}  // namespace zarvo

#endif
