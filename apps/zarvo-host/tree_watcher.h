// Follows every notification of a data source and of the objects of its tree,
// printing one line for each as it happens.
#ifndef ZARVO_HOST_TREE_WATCHER_H
#define ZARVO_HOST_TREE_WATCHER_H

#include <zarvo/host/list_view.h>

#include <zarvo/data_source.h>
#include <zarvo/message_dispatcher.h>

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>

namespace zarvo::host {

class TreeWatcher {
public:
    /// Watches the tree of `source` now and every tree that replaces it. Of
    /// each list, the first `rowsPerList` rows are acquired and watched too.
    /// Lines go to `out`: `Root.now.title = "Blue Hour"`,
    /// `Root.tracks (list, 200 rows)`, a row that comes into view with its
    /// fields, `Root.tracks[3] title="Cold Light" ...`.
    TreeWatcher(DataSource& source, std::ostream& out, std::uint64_t rowsPerList);
    ~TreeWatcher();
    TreeWatcher(const TreeWatcher&) = delete;
    TreeWatcher& operator=(const TreeWatcher&) = delete;

    /// Objects watched now, lists included.
    std::size_t watchedCount() const { return watched.size(); }

private:
    struct Watched {
        std::shared_ptr<DataObject> object;
        std::shared_ptr<void> token;
        std::string path;
    };
    struct WatchedList {
        std::unique_ptr<ListView> view;
        std::string path;
        /// The rows watched, by index, as they were last bound.
        std::map<std::uint64_t, DataObject*> rows;
    };

    void watchSource();
    void watchTree(const std::shared_ptr<DataObject>& object, const std::string& path);
    void watchChildren(const DataObject& object, const std::string& path);
    void unwatchTree(DataObject* object);
    void unwatchAll();
    void onModified(DataObject& object);
    void bindRows(DataObject* list);
    void line(const std::string& text);

    DataSource& source;
    std::ostream& out;
    const std::uint64_t rowsPerList;
    ZvuMessageDispatcher* loop;
    std::shared_ptr<void> sourceToken;
    std::shared_ptr<DataObject> watchedRoot;
    std::map<DataObject*, Watched> watched;
    /// By the list's object.
    std::map<DataObject*, WatchedList> lists;
    /// Work posted to the loop holds this weakly, so that it does nothing
    /// once the watcher is gone.
    std::shared_ptr<TreeWatcher*> self;
};

}  // namespace zarvo::host

#endif
