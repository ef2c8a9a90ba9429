// Content queries and their results.
#ifndef ZARVO_CONTENT_QUERY_H
#define ZARVO_CONTENT_QUERY_H

#include <boost/any.hpp>

#include <cstddef>
#include <cstdint>
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

/// The values of a result, one after another. A value of one of the four
/// result types is held in place, strings back to back in one buffer, so a
/// block of thousands of values is a few allocations and not one or two a
/// value; it is boxed only when a reader asks for it. A value of any other
/// type is kept boxed as it came.
class ContentCells {
public:
    ContentCells() = default;
    /// Boxes and all: what ContentResult's constructor from boxed cells takes.
    explicit ContentCells(std::vector<boost::any> boxed);

    std::size_t size() const { return cells.size(); }
    bool empty() const { return cells.empty(); }
    /// Room for `count` values and `textBytes` bytes of strings.
    void reserve(std::size_t count, std::size_t textBytes = 0);

    void pushInteger(int value);
    void pushFloat(float value);
    void pushBool(bool value);
    void pushString(const char* data, std::size_t length);
    /// Holds an int, float, bool or std::string in place, anything else boxed.
    void push(boost::any value);

    /// The value at `index` as a boost::any of the type it was given as;
    /// empty past the end.
    boost::any get(std::size_t index) const;

private:
    enum class Kind : unsigned char { Integer, Float, Bool, String, Boxed };
    struct Cell {
        Kind kind;
        std::uint32_t length;  ///< of a string
        union {
            int integer;
            float real;
            bool boolean;
            std::size_t offset;  ///< of a string in `text`, of a box in `boxes`
        };
    };

    std::vector<Cell> cells;
    std::string text;
    std::vector<boost::any> boxes;
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
    ContentResult(std::size_t startIndex, std::vector<Column> columns, ContentCells cells);

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
    ContentCells cells;
    std::size_t rowCount;
    std::size_t currentRow = 0;
};

}  // namespace zarvo

#endif
