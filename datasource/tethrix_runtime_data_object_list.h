// The list data object that mirrors a list of runtime data. Every row exists
// in the runtime tree already; a row's data object is built when the UI
// acquires it and unlinked when the UI releases it.
#ifndef ZARVO_DATASOURCE_TETHRIX_RUNTIME_DATA_OBJECT_LIST_H
#define ZARVO_DATASOURCE_TETHRIX_RUNTIME_DATA_OBJECT_LIST_H

#include <zarvo/data_object.h>
#include <zarvo/runtime_data.h>

#include <memory>

namespace zarvo {

class ContentAdapter;

class TethrixRuntimeDataObjectList : public DataObjectList {
public:
    TethrixRuntimeDataObjectList(Domain* domain, string_view name, std::shared_ptr<ContentAdapter> adapter,
                                 std::shared_ptr<RuntimeDataObjectList> runtimeList);

    /// The runtime list's row count, read at each call.
    std::size_t itemCount() override;
    /// The row's data object; "empty" for an index the runtime list lacks.
    std::shared_ptr<DataObject> acquireItem(std::size_t index) override;
    /// Unlinks the row from its data object, whatever number of acquires
    /// came before.
    void releaseItem(std::size_t index) override;
    /// The mirror of the runtime list's row template, made once and kept on
    /// the runtime list; "empty" if it has none.
    std::shared_ptr<DataObject> getItemTemplate() override;

    /// For an owner that throws a whole tree away (see
    /// TethrixDataObjectList::releaseAdapters): the list, its adapter and the
    /// runtime list, whose bound data object is this list, hold each other;
    /// this lets go of both. The list has no rows afterwards.
    void releaseRuntimeList();

private:
    /// Keeps only the children that mirror a bound row of the runtime list.
    void dropUnboundRows(std::size_t rows);

    std::shared_ptr<DataObject> emptyItem;
    std::shared_ptr<RuntimeDataObjectList> runtimeList;
    std::shared_ptr<ContentAdapter> contentAdapter;
    bool reportedDroppedRows = false;
};

}  // namespace zarvo

#endif
