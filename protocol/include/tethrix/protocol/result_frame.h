// The binary form of a result: one WebSocket binary frame, sent instead of
// the JSON `result` to a client that asked for it in its hello. Rows are
// written as they are read from the database and read back cell by cell,
// with no document in between; docs/protocol.md gives the layout.
#ifndef TETHRIX_PROTOCOL_RESULT_FRAME_H
#define TETHRIX_PROTOCOL_RESULT_FRAME_H

#include <tethrix/protocol/messages.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tethrix::protocol {

/// First byte of a result frame, then the layout's version.
constexpr unsigned char resultFrameKind = 0x01;
constexpr unsigned char resultFrameVersion = 1;
/// The value of hello's "resultFormat" that asks for result frames.
constexpr const char* binaryResultFormat = "binary";

class ResultFrameWriter {
public:
    /// `expectedBytes`: room taken at once, e.g. the size of the block
    /// before, so that the frame is not copied as it grows.
    ResultFrameWriter(RequestId id, std::uint64_t startIndex, const std::vector<Column>& columns,
                      std::size_t expectedBytes = 256);

    /// The cells of a row, in column order, each of its column's type.
    void integer(std::int64_t value);
    /// NaN is written as 0 and infinities as the largest finite doubles,
    /// as the JSON form writes them.
    void real(double value);
    void boolean(bool value);
    /// Invalid UTF-8 bytes become U+FFFD.
    void text(std::string_view value);
    void value(const Value& cell);
    void endRow() { ++rows; }

    std::uint32_t rowCount() const { return rows; }
    /// Bytes written so far.
    std::size_t size() const { return out.size(); }
    /// The frame, complete.
    std::string take();

    /// Gives a finished frame to another request: a result read ahead is
    /// sent as the answer of the query that asks for it.
    static void readdress(std::string& frame, RequestId id);

private:
    void varint(std::uint64_t value);

    std::string out;
    std::size_t rowCountAt = 0;
    std::uint32_t rows = 0;
};

/// Reads a result frame. Every read checks the bytes: a truncated frame, a
/// cell of the wrong form, invalid UTF-8 or bytes left over make it fail
/// with a reason, and nothing is read past the frame.
class ResultFrameReader {
public:
    /// Reads up to the first cell; false (and error() says why) if `frame`
    /// is not a result frame of a known version. The frame must outlive the
    /// reader and the texts it gives.
    bool open(std::string_view frame);

    /// The request id, readable from any frame of at least ten bytes that
    /// starts as a result frame, so that a bad frame can still fail its
    /// request.
    static std::optional<RequestId> peekId(std::string_view frame);

    RequestId id() const { return requestId; }
    std::uint64_t startIndex() const { return start; }
    const std::vector<Column>& columns() const { return resultColumns; }
    std::uint32_t rowCount() const { return rows; }
    /// Bytes not yet read: a bound on the bytes of the texts still to come.
    std::size_t remaining() const { return rest.size(); }

    /// The next cell, which must be of the type called for.
    bool integer(std::int64_t& value);
    bool real(double& value);
    bool boolean(bool& value);
    bool text(std::string_view& value);
    bool value(ColumnType type, Value& cell);
    /// True once every cell was read and no byte is left; call it last.
    bool finish();

    const std::string& error() const { return reason; }

private:
    bool varint(std::uint64_t& value);
    bool fail(std::string why);

    std::string_view rest;
    RequestId requestId = 0;
    std::uint64_t start = 0;
    std::vector<Column> resultColumns;
    std::uint32_t rows = 0;
    std::string reason;
};

/// A whole result frame as a Result; for tests and tools, which want the
/// message rather than the cells.
std::optional<Result> decodeResultFrame(std::string_view frame, std::string& error);
std::string encodeResultFrame(const Result& result);

}  // namespace tethrix::protocol

#endif
