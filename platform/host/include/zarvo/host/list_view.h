// The engine's list view: what a screen holds of a list, the rows of a
// window, acquired as they enter it and released as they leave, and bound
// afresh after the list reports a change.
#ifndef ZARVO_HOST_LIST_VIEW_H
#define ZARVO_HOST_LIST_VIEW_H

#include <zarvo/data_object.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace zarvo {

class ListView {
public:
    using Rows = std::map<std::uint64_t, std::shared_ptr<DataObject>>;

    explicit ListView(std::shared_ptr<DataObjectList> list);
    /// Releases the rows it holds.
    ~ListView();
    ListView(const ListView&) = delete;
    ListView& operator=(const ListView&) = delete;

    /// Shows the rows [first, first + size) that the list has (below its
    /// itemCount): acquires the rows that enter, releases those that leave.
    void moveTo(std::uint64_t first, std::uint64_t size);
    /// Shows [first, first + size) whatever the list's count, as a view that
    /// was told where to go before the list knew it had such rows; they
    /// fill once their block has come.
    void jumpTo(std::uint64_t first, std::uint64_t size);
    /// Shows the same window again: rows the list has gained within it, and
    /// every row afresh after the list changed.
    void refresh();

    /// True once the list has told of a change since the rows were last
    /// shown; refresh() binds them afresh.
    bool isStale() const { return stale; }
    /// Called at each change of the list, after the view is marked stale.
    void setChangeHandler(std::function<void()> handler) { onChange = std::move(handler); }

    DataObjectList& list() const { return *viewed; }
    const Rows& rows() const { return shown; }
    std::uint64_t first() const { return windowFirst; }
    std::uint64_t size() const { return windowSize; }
    /// Rows shown that hold no data yet.
    std::size_t unfilledCount() const;

    /// A row holds data once its adapter gave it its fields.
    static bool isFilled(const DataObject& row) { return row.getChildCount() > 0; }

private:
    void show(std::uint64_t first, std::uint64_t size, bool clipped);

    std::shared_ptr<DataObjectList> viewed;
    std::shared_ptr<void> subscription;
    std::function<void()> onChange;
    Rows shown;
    std::uint64_t windowFirst = 0;
    std::uint64_t windowSize = 0;
    bool clipToCount = true;
    bool stale = false;
};

}  // namespace zarvo

#endif
