#include <tethrix/protocol/result_frame.h>

#include <tethrix/protocol/json_writer.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace tethrix::protocol {

namespace {

constexpr std::size_t idOffset = 2;
constexpr std::size_t idBytes = 8;

void putLittleEndian(char* at, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i)
        at[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

std::uint64_t getLittleEndian(const char* at, std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i)
        value |= std::uint64_t{static_cast<unsigned char>(at[i])} << (8 * i);
    return value;
}

}  // namespace

ResultFrameWriter::ResultFrameWriter(RequestId id, std::uint64_t startIndex, const std::vector<Column>& columns,
                                     std::size_t expectedBytes) {
    out.reserve(std::min(expectedBytes, maxResultFrameBytes));
    out += static_cast<char>(resultFrameKind);
    out += static_cast<char>(resultFrameVersion);
    out.append(idBytes, '\0');
    putLittleEndian(out.data() + idOffset, id, idBytes);
    varint(startIndex);
    varint(columns.size());
    for (const auto& column : columns) {
        varint(column.name.size());
        out += column.name;
        out += static_cast<char>(column.type);
    }
    rowCountAt = out.size();
    out.append(4, '\0');
}

void ResultFrameWriter::varint(std::uint64_t value) {
    char bytes[10];
    std::size_t n = 0;
    while (value >= 0x80) {
        bytes[n++] = static_cast<char>((value & 0x7F) | 0x80);
        value >>= 7;
    }
    bytes[n++] = static_cast<char>(value);
    out.append(bytes, n);
}

void ResultFrameWriter::integer(std::int64_t value) {
    // Zigzag: small negative numbers stay short.
    const auto bits = static_cast<std::uint64_t>(value);
    varint((bits << 1) ^ (value < 0 ? ~std::uint64_t{0} : 0));
}

void ResultFrameWriter::real(double value) {
    if (std::isnan(value))
        value = 0.0;
    if (std::isinf(value))
        value = value > 0 ? std::numeric_limits<double>::max() : std::numeric_limits<double>::lowest();
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    const std::size_t at = out.size();
    out.append(8, '\0');
    putLittleEndian(out.data() + at, bits, 8);
}

void ResultFrameWriter::boolean(bool value) {
    out += value ? '\1' : '\0';
}

void ResultFrameWriter::text(std::string_view value) {
    if (isValidUtf8(value)) {
        varint(value.size());
        out.append(value.data(), value.size());
        return;
    }
    std::string repaired;
    appendValidUtf8(repaired, value);
    varint(repaired.size());
    out += repaired;
}

void ResultFrameWriter::value(const Value& cell) {
    if (auto* i = std::get_if<std::int64_t>(&cell))
        return integer(*i);
    if (auto* d = std::get_if<double>(&cell))
        return real(*d);
    if (auto* b = std::get_if<bool>(&cell))
        return boolean(*b);
    text(std::get<std::string>(cell));
}

std::string ResultFrameWriter::take() {
    putLittleEndian(out.data() + rowCountAt, rows, 4);
    return std::move(out);
}

void ResultFrameWriter::readdress(std::string& frame, RequestId id) {
    if (frame.size() >= idOffset + idBytes)
        putLittleEndian(frame.data() + idOffset, id, idBytes);
}

std::optional<RequestId> ResultFrameReader::peekId(std::string_view frame) {
    if (frame.size() < idOffset + idBytes || static_cast<unsigned char>(frame[0]) != resultFrameKind) {
        return std::nullopt;
    }
    return getLittleEndian(frame.data() + idOffset, idBytes);
}

bool ResultFrameReader::fail(std::string why) {
    reason = "result frame: " + std::move(why);
    rest = {};
    return false;
}

bool ResultFrameReader::varint(std::uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
        if (rest.empty())
            return fail("cut short");
        const auto byte = static_cast<unsigned char>(rest.front());
        rest.remove_prefix(1);
        if (shift == 63 && byte > 1)
            return fail("number too large");
        value |= std::uint64_t{byte & 0x7Fu} << shift;
        if ((byte & 0x80) == 0)
            return true;
    }
    return fail("number too large");
}

bool ResultFrameReader::open(std::string_view frame) {
    rest = frame;
    resultColumns.clear();
    if (frame.size() < idOffset + idBytes || static_cast<unsigned char>(frame[0]) != resultFrameKind) {
        return fail("not a result frame");
    }
    if (static_cast<unsigned char>(frame[1]) != resultFrameVersion) {
        return fail("unknown version " + std::to_string(static_cast<unsigned char>(frame[1])));
    }
    requestId = getLittleEndian(frame.data() + idOffset, idBytes);
    rest.remove_prefix(idOffset + idBytes);
    std::uint64_t count = 0;
    if (!varint(start) || !varint(count))
        return false;
    // Every column takes two bytes at least: a bound before anything is
    // reserved for it.
    if (count > rest.size() / 2)
        return fail("more columns than bytes");
    resultColumns.reserve(static_cast<std::size_t>(count));
    for (std::uint64_t c = 0; c < count; ++c) {
        std::uint64_t length = 0;
        if (!varint(length))
            return false;
        if (length >= rest.size())
            return fail("cut short in column " + std::to_string(c));
        Column column;
        column.name.assign(rest.data(), static_cast<std::size_t>(length));
        rest.remove_prefix(static_cast<std::size_t>(length));
        const auto type = static_cast<unsigned char>(rest.front());
        rest.remove_prefix(1);
        if (!isValidUtf8(column.name))
            return fail("column " + std::to_string(c) + " has a name that is not UTF-8");
        if (!isColumnType(type))
            return fail("column " + std::to_string(c) + " has the unknown type " + std::to_string(type));
        column.type = static_cast<ColumnType>(type);
        resultColumns.push_back(std::move(column));
    }
    if (rest.size() < 4)
        return fail("cut short before the rows");
    rows = static_cast<std::uint32_t>(getLittleEndian(rest.data(), 4));
    rest.remove_prefix(4);
    // Every cell takes a byte at least.
    if (rows != 0 && (resultColumns.empty() || rows > rest.size() / resultColumns.size())) {
        return fail(std::to_string(rows) + " rows do not fit the frame");
    }
    return true;
}

bool ResultFrameReader::integer(std::int64_t& value) {
    std::uint64_t bits = 0;
    if (!varint(bits))
        return false;
    value = static_cast<std::int64_t>((bits >> 1) ^ (~(bits & 1) + 1));
    return true;
}

bool ResultFrameReader::real(double& value) {
    if (rest.size() < 8)
        return fail("cut short");
    const std::uint64_t bits = getLittleEndian(rest.data(), 8);
    rest.remove_prefix(8);
    std::memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value))
        return fail("a real is out of range");
    return true;
}

bool ResultFrameReader::boolean(bool& value) {
    if (rest.empty())
        return fail("cut short");
    const auto byte = static_cast<unsigned char>(rest.front());
    rest.remove_prefix(1);
    if (byte > 1)
        return fail("a boolean is neither 0 nor 1");
    value = byte == 1;
    return true;
}

bool ResultFrameReader::text(std::string_view& value) {
    std::uint64_t length = 0;
    if (!varint(length))
        return false;
    if (length > rest.size())
        return fail("cut short");
    value = rest.substr(0, static_cast<std::size_t>(length));
    rest.remove_prefix(static_cast<std::size_t>(length));
    if (!isValidUtf8(value))
        return fail("a text is not UTF-8");
    return true;
}

bool ResultFrameReader::value(ColumnType type, Value& cell) {
    switch (type) {
    case ColumnType::integer: {
        std::int64_t number = 0;
        if (!integer(number))
            return false;
        cell = number;
        return true;
    }
    case ColumnType::real: {
        double number = 0;
        if (!real(number))
            return false;
        cell = number;
        return true;
    }
    case ColumnType::boolean: {
        bool flag = false;
        if (!boolean(flag))
            return false;
        cell = flag;
        return true;
    }
    case ColumnType::text:
        break;
    }
    std::string_view chars;
    if (!text(chars))
        return false;
    cell = std::string(chars);
    return true;
}

bool ResultFrameReader::finish() {
    if (!reason.empty())
        return false;
    if (!rest.empty())
        return fail(std::to_string(rest.size()) + " bytes after the last row");
    return true;
}

std::optional<Result> decodeResultFrame(std::string_view frame, std::string& error) {
    ResultFrameReader reader;
    if (!reader.open(frame)) {
        error = reader.error();
        return std::nullopt;
    }
    Result result;
    result.id = reader.id();
    result.startIndex = reader.startIndex();
    result.columns = reader.columns();
    result.rows.resize(reader.rowCount());
    for (auto& row : result.rows) {
        row.resize(result.columns.size());
        for (std::size_t c = 0; c < row.size(); ++c) {
            if (!reader.value(result.columns[c].type, row[c])) {
                error = reader.error();
                return std::nullopt;
            }
        }
    }
    if (!reader.finish()) {
        error = reader.error();
        return std::nullopt;
    }
    return result;
}

std::string encodeResultFrame(const Result& result) {
    ResultFrameWriter writer(result.id, result.startIndex, result.columns);
    for (const auto& row : result.rows) {
        for (const auto& cell : row)
            writer.value(cell);
        writer.endRow();
    }
    return writer.take();
}

}  // namespace tethrix::protocol
