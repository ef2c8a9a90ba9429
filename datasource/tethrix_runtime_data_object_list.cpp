#include "datasource/tethrix_runtime_data_object_list.h"

#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"

#include <zarvo/log.h>

namespace zarvo {

TethrixRuntimeDataObjectList::TethrixRuntimeDataObjectList(Domain* domain, string_view name,
                                                           std::shared_ptr<ContentAdapter> adapter,
                                                           std::shared_ptr<RuntimeDataObjectList> runtimeList)
    : DataObjectList(domain, name),
      emptyItem(std::make_shared<DataObject>(domain, "empty")),
      runtimeList(std::move(runtimeList)),
      contentAdapter(std::move(adapter)) {}

std::size_t TethrixRuntimeDataObjectList::itemCount() {
    return runtimeList ? runtimeList->itemCount() : 0;
}

std::shared_ptr<DataObject> TethrixRuntimeDataObjectList::acquireItem(std::size_t index) {
    const std::size_t amount = itemCount();
    if (index >= amount) {
        // A UI may still hold an index after the runtime list shrank.
        ZARVO_LOG_ERROR("tethrix", "Invalid index in acquireItem. index={} amount={}", index, amount);
        return emptyItem;
    }
    std::shared_ptr<RuntimeDataObject> item = runtimeList->getItem(index);
    if (!item) {
        ZARVO_LOG_ERROR("tethrix", "Logical error at index {}", index);
        return emptyItem;
    }
    if (item->boundDataObject) {
        return item->boundDataObject;
    }
    // The runtime list's binding is this list itself, the rows' parent.
    item->boundDataObject =
        ContentAdapter::createDataObjectRecursively(item, runtimeList->boundDataObject, getDomain(), contentAdapter);
    return item->boundDataObject;
}

void TethrixRuntimeDataObjectList::releaseItem(std::size_t index) {
    if (!runtimeList || index >= runtimeList->itemCount()) {
        return;
    }
    std::shared_ptr<RuntimeDataObject> item = runtimeList->getItem(index);
    if (item) {
        item->boundDataObject.reset();
    }
    // A released row stays among the list's children, and every acquire
    // after a release adds one more; without this, a list scrolled for a
    // day would hold every row it ever showed.
    const std::size_t rows = runtimeList->itemCount();
    if (getChildCount() >= 2 * rows + 16) {
        dropUnboundRows(rows);
    }
}

void TethrixRuntimeDataObjectList::dropUnboundRows(std::size_t rows) {
    const std::size_t before = getChildCount();
    removeAllChildren();
    for (std::size_t index = 0; index < rows; ++index) {
        std::shared_ptr<RuntimeDataObject> item = runtimeList->getItem(index);
        if (item && item->boundDataObject) {
            addChild(item->boundDataObject);
        }
    }
    if (!reportedDroppedRows) {
        reportedDroppedRows = true;
        ZARVO_LOG_INFO("tethrix",
                       "TethrixRuntimeDataObjectList: list '{}' dropped {} released rows from its children; released "
                       "rows are dropped from here on",
                       getName(), before - getChildCount());
    }
}

std::shared_ptr<DataObject> TethrixRuntimeDataObjectList::getItemTemplate() {
    std::shared_ptr<RuntimeDataObject> rowTemplate = runtimeList->runtimeItemTemplate;
    if (!rowTemplate) {
        return emptyItem;
    }
    if (!runtimeList->itemTemplateDataObject) {
        // No parent: the template must not turn up among the rows.
        runtimeList->itemTemplateDataObject =
            ContentAdapter::createDataObjectRecursively(rowTemplate, nullptr, getDomain(), contentAdapter);
    }
    return runtimeList->itemTemplateDataObject;
}

void TethrixRuntimeDataObjectList::releaseRuntimeList() {
    // The template's mirror is in no tree, and its lists hold the adapter.
    if (runtimeList) {
        TethrixDataObjectList::releaseAdapters(runtimeList->itemTemplateDataObject);
    }
    // The runtime list keeps its link to this list; with these two gone,
    // nothing leads back from here, and the ring is open.
    runtimeList.reset();
    contentAdapter.reset();
}

}  // namespace zarvo
