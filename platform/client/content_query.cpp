#include <zarvo/content_query.h>

#include <zarvo/client/value_text.h>

#include <stdexcept>
#include <utility>

namespace zarvo {

ContentQueryArguments::ContentQueryArguments(const std::string& uri, const std::vector<std::string>& columns,
                                             std::string filter, int index, int count, std::string sort)
    : uri(uri),
      columns(columns),
      filter(std::move(filter)),
      index(index),
      count(count),
      sort(std::move(sort)) {}

ContentQueryArguments::~ContentQueryArguments() = default;

namespace {

std::size_t countRows(const std::vector<ContentResult::Column>& columns, const std::vector<boost::any>& cells) {
    if (columns.empty()) {
        if (!cells.empty()) {
            throw std::invalid_argument("ContentResult: " + std::to_string(cells.size()) + " cells without any column");
        }
        return 0;
    }
    if (cells.size() % columns.size() != 0) {
        throw std::invalid_argument("ContentResult: " + std::to_string(cells.size()) +
                                    " cells do not make whole rows of " + std::to_string(columns.size()) + " columns");
    }
    return cells.size() / columns.size();
}

}  // namespace

ContentResult::ContentResult(std::size_t startIndex, std::vector<Column> columns, std::vector<boost::any> cells)
    : startIndex(startIndex),
      columns(std::move(columns)),
      cells(std::move(cells)),
      rowCount(countRows(this->columns, this->cells)) {}

// Out of range: an empty name and type 0, which no column has, so a caller
// that checks names and types against what it expects sees a mismatch.
std::string ContentResult::getColumnName(std::size_t column) const {
    return column < columns.size() ? columns[column].name : std::string();
}

ContentDataType ContentResult::getColumnType(std::size_t column) const {
    return column < columns.size() ? columns[column].type : static_cast<ContentDataType>(0);
}

boost::any ContentResult::getValueAny(std::size_t column) const {
    if (column >= columns.size() || currentRow >= rowCount) {
        return boost::any();
    }
    return cells[currentRow * columns.size() + column];
}

std::string ContentResult::getColumnValue(std::size_t column) const {
    if (column >= columns.size() || currentRow >= rowCount) {
        return std::string();
    }
    return client::formatAny(cells[currentRow * columns.size() + column]);
}

}  // namespace zarvo
