#include <zarvo/content_query.h>

#include <zarvo/client/value_text.h>

#include <limits>
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

ContentCells::ContentCells(std::vector<boost::any> boxed) {
    cells.reserve(boxed.size());
    for (auto& value : boxed) {
        push(std::move(value));
    }
}

void ContentCells::reserve(std::size_t count, std::size_t textBytes) {
    cells.reserve(count);
    text.reserve(textBytes);
}

void ContentCells::pushInteger(int value) {
    Cell cell{Kind::Integer, 0, {}};
    cell.integer = value;
    cells.push_back(cell);
}

void ContentCells::pushFloat(float value) {
    Cell cell{Kind::Float, 0, {}};
    cell.real = value;
    cells.push_back(cell);
}

void ContentCells::pushBool(bool value) {
    Cell cell{Kind::Bool, 0, {}};
    cell.boolean = value;
    cells.push_back(cell);
}

void ContentCells::pushString(const char* data, std::size_t length) {
    if (length > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("ContentCells: a string of " + std::to_string(length) + " bytes");
    }
    Cell cell{Kind::String, static_cast<std::uint32_t>(length), {}};
    cell.offset = text.size();
    text.append(data, length);
    cells.push_back(cell);
}

void ContentCells::push(boost::any value) {
    const std::type_info& type = value.type();
    if (type == typeid(int)) {
        pushInteger(boost::any_cast<int>(value));
    } else if (type == typeid(float)) {
        pushFloat(boost::any_cast<float>(value));
    } else if (type == typeid(bool)) {
        pushBool(boost::any_cast<bool>(value));
    } else if (type == typeid(std::string)) {
        const std::string& string = boost::any_cast<const std::string&>(value);
        pushString(string.data(), string.size());
    } else {
        Cell cell{Kind::Boxed, 0, {}};
        cell.offset = boxes.size();
        boxes.push_back(std::move(value));
        cells.push_back(cell);
    }
}

boost::any ContentCells::get(std::size_t index) const {
    if (index >= cells.size()) {
        return boost::any();
    }
    const Cell& cell = cells[index];
    switch (cell.kind) {
    case Kind::Integer:
        return cell.integer;
    case Kind::Float:
        return cell.real;
    case Kind::Bool:
        return cell.boolean;
    case Kind::String:
        return std::string(text, cell.offset, cell.length);
    case Kind::Boxed:
        break;
    }
    return boxes[cell.offset];
}

namespace {

std::size_t countRows(const std::vector<ContentResult::Column>& columns, const ContentCells& cells) {
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
    : ContentResult(startIndex, std::move(columns), ContentCells(std::move(cells))) {}

ContentResult::ContentResult(std::size_t startIndex, std::vector<Column> columns, ContentCells cells)
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
    return cells.get(currentRow * columns.size() + column);
}

std::string ContentResult::getColumnValue(std::size_t column) const {
    if (column >= columns.size() || currentRow >= rowCount) {
        return std::string();
    }
    return client::formatAny(cells.get(currentRow * columns.size() + column));
}

}  // namespace zarvo
