// Content queries and their results.
#ifndef ZARVO_CONTENT_QUERY_H
#define ZARVO_CONTENT_QUERY_H

#include <boost/any.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace zarvo {

/// Type of a result column. The numbers are part of the interface.
enum ContentDataType : int {
    ContentDataTypeInteger = 1,  ///< held as int
    ContentDataTypeFloat = 2,    ///< held as float
    ContentDataTypeBool = 3,     ///< held as bool
    ContentDataTypeString = 4,   ///< held as std::string
};

/// One query: where, which columns in which order, which rows.
/// Held by std::shared_ptr.
class ContentQueryArguments {
public:
    ContentQueryArguments(const std::string& uri, const std::vector<std::string>& columns, std::string filter,
                          int index, int count, std::string sort);
    virtual ~ContentQueryArguments();

    const std::string& getUri() const { return uri; }
    const std::vector<std::string>& getColumns() const { return columns; }
    const std::string& getFilter() const { return filter; }
    int getIndex() const { return index; }
    /// Rows wanted; 0 means no limit.
    int getCount() const { return count; }
    const std::string& getSort() const { return sort; }

private:
    std::string uri;
    std::vector<std::string> columns;
    std::string filter;
    int index;
    int count;
    std::string sort;
};

/// The answer to a query: a table of rows and a current row.
class ContentResult {
public:
    struct Column {
        std::string name;
        ContentDataType type;
    };

    /// `cells` holds the rows one after another, each with one value per
    /// column, of the type that the column's type names. Cells that do not
    /// make whole rows throw std::invalid_argument.
    ContentResult(std::size_t startIndex, std::vector<Column> columns, std::vector<boost::any> cells);

    std::size_t getRowCount() const { return rowCount; }
    /// Index of the first row within the whole content.
    std::size_t getStartIndex() const { return startIndex; }
    /// Makes `row` (from 0, within this result) the current row.
    void setRowIndex(std::size_t row) { currentRow = row; }
    std::size_t getRowIndex() const { return currentRow; }
    std::size_t getColumnCount() const { return columns.size(); }
    /// Out of range: an empty name and type 0, which matches no column.
    std::string getColumnName(std::size_t column) const;
    ContentDataType getColumnType(std::size_t column) const;
    /// The current row's value in `column`; empty if the column or the
    /// current row is out of range.
    boost::any getValueAny(std::size_t column) const;
    /// The same value as text: integers in decimal, reals as the shortest
    /// text that reads back the same, booleans as 1 or 0.
    std::string getColumnValue(std::size_t column) const;

private:
    std::size_t startIndex;
    std::vector<Column> columns;
    std::vector<boost::any> cells;
    std::size_t rowCount;
    std::size_t currentRow = 0;
};

}  // namespace zarvo

#endif
