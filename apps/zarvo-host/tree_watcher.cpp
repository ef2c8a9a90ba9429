#include "tree_watcher.h"

#include "tree_printer.h"

#include <zarvo/domain.h>

namespace zarvo::host {

TreeWatcher::TreeWatcher(DataSource& source, std::ostream& out, std::uint64_t rowsPerList)
    : source(source),
      out(out),
      rowsPerList(rowsPerList),
      loop(source.getDomain()->getMessageDispatcher()),
      self(std::make_shared<TreeWatcher*>(this)) {
    sourceToken = source.addModifiedSubscription([this](DataContext&) {
        line(this->source.getObjectName() + " (tree replaced)");
        unwatchAll();
        watchSource();
    });
    watchSource();
}

TreeWatcher::~TreeWatcher() {
    source.removeModifiedSubscription(sourceToken);
    unwatchAll();
}

void TreeWatcher::watchSource() {
    watchedRoot = source.getData();
    if (watchedRoot) {
        watchTree(watchedRoot, watchedRoot->getName());
    }
}

void TreeWatcher::watchTree(const std::shared_ptr<DataObject>& object, const std::string& path) {
    if (!object || watched.count(object.get()) != 0) {
        return;
    }
    DataObject* key = object.get();
    auto token = object->addModifiedSubscription([this, key](DataContext&) { onModified(*key); });
    watched.emplace(key, Watched{object, std::move(token), path});
    if (object->getType() != DataObject::TypeList) {
        watchChildren(*object, path);
        return;
    }
    auto list = std::static_pointer_cast<DataObjectList>(object);
    WatchedList& entry = lists[list.get()];
    entry.path = path;
    entry.view = std::make_unique<ListView>(list);
    entry.view->moveTo(0, rowsPerList);
    bindRows(list.get());
}

void TreeWatcher::watchChildren(const DataObject& object, const std::string& path) {
    for (std::size_t index = 0; index < object.getChildCount(); ++index) {
        const std::shared_ptr<DataObject> child = object.getChild(index);
        if (child) {
            watchTree(child, path + "." + child->getName());
        }
    }
}

void TreeWatcher::unwatchTree(DataObject* object) {
    const auto found = watched.find(object);
    if (found == watched.end()) {
        return;
    }
    // Held until the end: erasing the entry may drop the last reference.
    const std::shared_ptr<DataObject> keep = found->second.object;
    keep->removeModifiedSubscription(found->second.token);
    watched.erase(found);
    const auto list = lists.find(object);
    if (list != lists.end()) {
        for (const auto& row : list->second.rows) {
            unwatchTree(row.second);
        }
        lists.erase(list);
    }
    for (std::size_t index = 0; index < keep->getChildCount(); ++index) {
        unwatchTree(keep->getChild(index).get());
    }
}

void TreeWatcher::unwatchAll() {
    for (auto& entry : watched) {
        entry.second.object->removeModifiedSubscription(entry.second.token);
    }
    // The views release their rows while the watched objects still live.
    lists.clear();
    watched.clear();
}

void TreeWatcher::onModified(DataObject& object) {
    const auto found = watched.find(&object);
    if (found == watched.end()) {
        return;
    }
    line(found->second.path + " " + describe(object));
    if (object.getType() != DataObject::TypeList) {
        // A row that has just been filled has new children.
        watchChildren(object, found->second.path);
        return;
    }
    // The list is in the middle of telling its views; they bind its rows
    // afresh once it is done, as the engine's views do.
    std::weak_ptr<TreeWatcher*> weak = self;
    DataObject* list = &object;
    loop->post([weak, list]() {
        if (const auto alive = weak.lock()) {
            (*alive)->bindRows(list);
        }
    });
}

void TreeWatcher::bindRows(DataObject* list) {
    const auto found = lists.find(list);
    if (found == lists.end()) {
        return;
    }
    WatchedList& entry = found->second;
    entry.view->refresh();
    std::map<std::uint64_t, DataObject*> bound;
    for (const auto& row : entry.view->rows()) {
        bound.emplace(row.first, row.second.get());
        const auto before = entry.rows.find(row.first);
        if (before != entry.rows.end() && before->second == row.second.get()) {
            continue;
        }
        if (before != entry.rows.end()) {
            unwatchTree(before->second);
        }
        const std::string path = entry.path + "[" + std::to_string(row.first) + "]";
        if (ListView::isFilled(*row.second)) {
            line(path + " " + fieldsText(*row.second));
        }
        watchTree(row.second, path);
    }
    for (const auto& row : entry.rows) {
        if (bound.count(row.first) == 0) {
            unwatchTree(row.second);
        }
    }
    entry.rows = std::move(bound);
}

void TreeWatcher::line(const std::string& text) {
    out << text << std::endl;
}

}  // namespace zarvo::host
