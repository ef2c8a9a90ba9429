#include <zarvo/host/list_view.h>

#include <algorithm>

namespace zarvo {

ListView::ListView(std::shared_ptr<DataObjectList> list) : viewed(std::move(list)) {
    subscription = viewed->addModifiedSubscription([this](DataContext&) {
        stale = true;
        if (onChange) {
            onChange();
        }
    });
}

ListView::~ListView() {
    viewed->removeModifiedSubscription(subscription);
    if (stale) {
        return;
    }
    for (const auto& row : shown) {
        viewed->releaseItem(row.first);
    }
}

void ListView::moveTo(std::uint64_t first, std::uint64_t size) {
    show(first, size, true);
}

void ListView::jumpTo(std::uint64_t first, std::uint64_t size) {
    show(first, size, false);
}

void ListView::refresh() {
    show(windowFirst, windowSize, clipToCount);
}

std::size_t ListView::unfilledCount() const {
    return static_cast<std::size_t>(
        std::count_if(shown.begin(), shown.end(), [](const auto& row) { return !isFilled(*row.second); }));
}

void ListView::show(std::uint64_t first, std::uint64_t size, bool clipped) {
    windowFirst = first;
    windowSize = size;
    clipToCount = clipped;
    std::uint64_t end = first + size;
    if (clipped) {
        const std::uint64_t count = viewed->itemCount();
        end = std::min(end, count);
        first = std::min(first, end);
    }
    if (stale) {
        // A list that tells of a change has forgotten the references of its
        // views (the block-cached list does so when it grows), so the rows
        // are acquired afresh and none is released.
        shown.clear();
        stale = false;
    } else {
        for (auto row = shown.begin(); row != shown.end();) {
            if (row->first >= first && row->first < end) {
                ++row;
                continue;
            }
            viewed->releaseItem(row->first);
            row = shown.erase(row);
        }
    }
    // What stays shown lies within the window, in order: one walk beside it
    // finds the rows that enter, with no look-up.
    auto next = shown.begin();
    for (std::uint64_t index = first; index < end; ++index) {
        if (next != shown.end() && next->first == index) {
            ++next;
            continue;
        }
        shown.emplace_hint(next, index, viewed->acquireItem(index));
    }
}

}  // namespace zarvo
