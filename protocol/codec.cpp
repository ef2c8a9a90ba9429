#include <tethrix/protocol/codec.h>

#include "json_reader.h"

#include <tethrix/protocol/json_writer.h>

#include <boost/json.hpp>

#include <cmath>
#include <limits>
#include <new>
#include <set>

namespace json = boost::json;

namespace tethrix::protocol {

// ---------------------------------------------------------------- encoding

namespace {

class Encoder {
public:
    std::string operator()(const Hello& m) {
        begin("hello");
        w.key("version");
        w.integer(m.version);
        optionalString("software", m.software);
        optionalString("filesBaseUrl", m.filesBaseUrl);
        optionalString("resultFormat", m.resultFormat);
        return end();
    }

    std::string operator()(const Query& m) {
        begin("query");
        id(m.id);
        stringField("uri", m.uri);
        w.key("columns");
        w.beginArray();
        for (const auto& column : m.columns)
            w.string(column);
        w.endArray();
        stringField("filter", m.filter);
        stringField("sort", m.sort);
        w.key("index");
        w.integer(m.index);
        w.key("count");
        w.integer(m.count);
        return end();
    }

    std::string operator()(const Result& m) {
        begin("result");
        id(m.id);
        w.key("startIndex");
        w.unsignedInteger(m.startIndex);
        w.key("columns");
        w.beginArray();
        for (const auto& column : m.columns) {
            w.beginObject();
            stringField("name", column.name);
            w.key("type");
            w.integer(static_cast<int>(column.type));
            w.endObject();
        }
        w.endArray();
        w.key("rows");
        w.beginArray();
        for (const auto& row : m.rows) {
            w.beginArray();
            for (const auto& cell : row)
                value(cell);
            w.endArray();
        }
        w.endArray();
        return end();
    }

    std::string operator()(const Error& m) {
        begin("error");
        if (m.id)
            id(*m.id);
        stringField("reason", m.reason);
        if (m.position) {
            w.key("position");
            w.unsignedInteger(*m.position);
        }
        return end();
    }

    std::string operator()(const Cancel& m) { return idOnly("cancel", m.id); }

    std::string operator()(const Subscribe& m) {
        begin("subscribe");
        id(m.id);
        stringField("uri", m.uri);
        return end();
    }

    std::string operator()(const Update& m) {
        begin("update");
        id(m.id);
        stringField("address", m.address);
        stringField("data", m.data);
        return end();
    }

    std::string operator()(const Unsubscribe& m) { return idOnly("unsubscribe", m.id); }
    std::string operator()(const Ping& m) { return idOnly("ping", m.id); }
    std::string operator()(const Pong& m) { return idOnly("pong", m.id); }

private:
    void begin(const char* type) {
        w.beginObject();
        stringField("type", type);
    }

    std::string end() {
        w.endObject();
        return w.take();
    }

    std::string idOnly(const char* type, std::uint64_t number) {
        begin(type);
        id(number);
        return end();
    }

    void id(std::uint64_t number) {
        w.key("id");
        w.unsignedInteger(number);
    }

    void stringField(const char* name, std::string_view text) {
        w.key(name);
        w.string(text);
    }

    void optionalString(const char* name, const std::string& text) {
        if (!text.empty())
            stringField(name, text);
    }

    void value(const Value& cell) {
        if (auto* i = std::get_if<std::int64_t>(&cell))
            return w.integer(*i);
        if (auto* d = std::get_if<double>(&cell))
            return w.real(*d);
        if (auto* b = std::get_if<bool>(&cell))
            return w.boolean(*b);
        w.string(std::get<std::string>(cell));
    }

    JsonWriter w;
};

}  // namespace

std::string encode(const Message& message) {
    return std::visit(Encoder{}, message);
}

// ---------------------------------------------------------------- decoding

namespace {

/// Deepest nesting a valid message has is three (result, rows, row); a
/// little room is left, anything deeper is refused by the parser itself.
constexpr std::size_t maxJsonDepth = 5;

struct DecodeFailure {
    std::string reason;
};

[[noreturn]] void fail(std::string reason) {
    throw DecodeFailure{std::move(reason)};
}

std::string quoted(std::string_view text) {
    std::string out;
    appendJsonString(out, text.substr(0, 64));
    return out;
}

/// Reads the keys of one JSON object and refuses those it was not asked
/// for, so that a misspelt key is an error rather than silently ignored.
class ObjectReader {
public:
    ObjectReader(const json::object& object, std::string context) : object(object), context(std::move(context)) {}

    const json::value* optional(const char* key) {
        auto* found = object.if_contains(key);
        if (found)
            used.insert(key);
        return found;
    }

    const json::value& required(const char* key) {
        auto* found = optional(key);
        if (!found)
            fail(context + ": missing \"" + key + "\"");
        return *found;
    }

    std::string string(const char* key) { return asString(required(key), key); }

    std::string optionalString(const char* key) {
        auto* found = optional(key);
        return found ? asString(*found, key) : std::string();
    }

    std::uint64_t unsignedInteger(const char* key) { return asUnsigned(required(key), key); }

    std::optional<std::uint64_t> optionalUnsigned(const char* key) {
        auto* found = optional(key);
        if (!found)
            return std::nullopt;
        return asUnsigned(*found, key);
    }

    std::int64_t integer(const char* key, std::int64_t min, std::int64_t max) {
        const auto& v = required(key);
        std::int64_t number = 0;
        if (!toInt64(v, number) || number < min || number > max) {
            fail(context + ": \"" + key + "\" must be an integer from " + std::to_string(min) + " to " +
                 std::to_string(max));
        }
        return number;
    }

    const json::array& array(const char* key) {
        const auto& v = required(key);
        if (!v.is_array())
            fail(context + ": \"" + key + "\" must be an array");
        return v.get_array();
    }

    /// Call last: every key present must have been read.
    void finish() const {
        for (const auto& entry : object) {
            if (used.count(std::string(entry.key())) == 0) {
                fail(context + ": unknown key " + quoted(entry.key()));
            }
        }
    }

    const std::string& where() const { return context; }

    static bool toInt64(const json::value& v, std::int64_t& number) {
        if (v.is_int64()) {
            number = v.get_int64();
            return true;
        }
        if (v.is_uint64() && v.get_uint64() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            number = static_cast<std::int64_t>(v.get_uint64());
            return true;
        }
        return false;
    }

private:
    std::string asString(const json::value& v, const char* key) const {
        if (!v.is_string())
            fail(context + ": \"" + key + "\" must be a string");
        return std::string(v.get_string());
    }

    std::uint64_t asUnsigned(const json::value& v, const char* key) const {
        if (v.is_uint64())
            return v.get_uint64();
        if (v.is_int64() && v.get_int64() >= 0)
            return static_cast<std::uint64_t>(v.get_int64());
        fail(context + ": \"" + key + "\" must be an integer from 0 to 18446744073709551615");
    }

    const json::object& object;
    std::string context;
    std::set<std::string> used;
};

constexpr std::int64_t int32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t int32Max = std::numeric_limits<std::int32_t>::max();

std::vector<std::string> stringArray(const json::array& array, const std::string& where) {
    std::vector<std::string> strings;
    strings.reserve(array.size());
    for (const auto& v : array) {
        if (!v.is_string())
            fail(where + " must hold strings only");
        strings.emplace_back(v.get_string());
    }
    return strings;
}

Value cellValue(const json::value& v, ColumnType type, const std::string& where) {
    switch (type) {
    case ColumnType::integer: {
        std::int64_t number = 0;
        if (!ObjectReader::toInt64(v, number))
            fail(where + " must be a 64-bit integer");
        return number;
    }
    case ColumnType::real:
        if (!v.is_number())
            fail(where + " must be a number");
        if (!std::isfinite(v.to_number<double>()))
            fail(where + " is out of range");
        return v.to_number<double>();
    case ColumnType::boolean:
        if (!v.is_bool())
            fail(where + " must be true or false");
        return v.get_bool();
    case ColumnType::text:
        if (!v.is_string())
            fail(where + " must be a string");
        return std::string(v.get_string());
    }
    fail(where + " has an unknown type");
}

std::vector<Column> resultColumns(const json::array& array) {
    std::vector<Column> columns;
    columns.reserve(array.size());
    for (std::size_t i = 0; i < array.size(); ++i) {
        std::string where = "result: column " + std::to_string(i);
        if (!array[i].is_object())
            fail(where + " must be an object");
        ObjectReader reader(array[i].get_object(), where);
        Column column;
        column.name = reader.string("name");
        auto type = reader.integer("type", 1, 4);
        column.type = static_cast<ColumnType>(type);
        reader.finish();
        columns.push_back(std::move(column));
    }
    return columns;
}

std::vector<std::vector<Value>> resultRows(const json::array& array, const std::vector<Column>& columns) {
    std::vector<std::vector<Value>> rows;
    rows.reserve(array.size());
    for (std::size_t r = 0; r < array.size(); ++r) {
        std::string where = "result: row " + std::to_string(r);
        if (!array[r].is_array())
            fail(where + " must be an array");
        const auto& cells = array[r].get_array();
        if (cells.size() != columns.size()) {
            fail(where + " has " + std::to_string(cells.size()) + " cells for " + std::to_string(columns.size()) +
                 " columns");
        }
        std::vector<Value> row;
        row.reserve(cells.size());
        for (std::size_t c = 0; c < cells.size(); ++c) {
            row.push_back(cellValue(cells[c], columns[c].type, where + ", column " + std::to_string(c)));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

/// Decodes the body of one message whose "type" has been read. Sets `id`
/// as soon as the request id is known, so that a later failure names it.
class BodyDecoder {
public:
    BodyDecoder(ObjectReader& reader, std::optional<RequestId>& id) : reader(reader), id(id) {}

    Message decode(std::string_view type) {
        if (type == "hello")
            return hello();
        if (type == "query")
            return query();
        if (type == "result")
            return result();
        if (type == "error")
            return error();
        if (type == "cancel")
            return Cancel{requestId()};
        if (type == "subscribe")
            return subscribe();
        if (type == "update")
            return update();
        if (type == "unsubscribe")
            return Unsubscribe{requestId()};
        if (type == "ping")
            return Ping{reader.unsignedInteger("id")};
        if (type == "pong")
            return Pong{reader.unsignedInteger("id")};
        // The sender may still tell which of its requests was refused.
        if (const json::value* given = reader.optional("id")) {
            if (given->is_uint64())
                id = given->get_uint64();
            if (given->is_int64() && given->get_int64() >= 0)
                id = static_cast<RequestId>(given->get_int64());
        }
        fail("unknown message type " + quoted(type));
    }

private:
    RequestId requestId() {
        id = reader.unsignedInteger("id");
        return *id;
    }

    Hello hello() {
        Hello m;
        m.version = static_cast<int>(reader.integer("version", 0, int32Max));
        m.software = reader.optionalString("software");
        m.filesBaseUrl = reader.optionalString("filesBaseUrl");
        m.resultFormat = reader.optionalString("resultFormat");
        return m;
    }

    Query query() {
        Query m;
        m.id = requestId();
        m.uri = reader.string("uri");
        m.columns = stringArray(reader.array("columns"), "query: \"columns\"");
        m.filter = reader.string("filter");
        m.sort = reader.string("sort");
        m.index = static_cast<std::int32_t>(reader.integer("index", int32Min, int32Max));
        m.count = static_cast<std::int32_t>(reader.integer("count", int32Min, int32Max));
        return m;
    }

    Result result() {
        Result m;
        m.id = requestId();
        m.startIndex = reader.unsignedInteger("startIndex");
        m.columns = resultColumns(reader.array("columns"));
        m.rows = resultRows(reader.array("rows"), m.columns);
        return m;
    }

    Error error() {
        Error m;
        m.id = reader.optionalUnsigned("id");
        id = m.id;
        m.reason = reader.string("reason");
        m.position = reader.optionalUnsigned("position");
        return m;
    }

    Subscribe subscribe() {
        Subscribe m;
        m.id = requestId();
        m.uri = reader.string("uri");
        return m;
    }

    Update update() {
        Update m;
        m.id = requestId();
        m.address = reader.string("address");
        m.data = reader.string("data");
        return m;
    }

    ObjectReader& reader;
    std::optional<RequestId>& id;
};

json::value parseJson(std::string_view frame) {
    JsonReadResult read = readJson(frame, maxJsonDepth);
    if (!read.error.empty())
        fail(read.error);
    return std::move(read.value);
}

Decoded decodeFrame(std::string_view frame, std::size_t maxBytes) {
    Decoded decoded;
    if (frame.size() > maxBytes) {
        decoded.error.reason = "frame of " + std::to_string(frame.size()) + " bytes exceeds the limit of " +
                               std::to_string(maxBytes) + " bytes";
        return decoded;
    }
    std::optional<RequestId> id;
    try {
        json::value document = parseJson(frame);
        if (!document.is_object())
            fail("a message must be a JSON object");
        const auto& object = document.get_object();
        auto* type = object.if_contains("type");
        if (!type || !type->is_string())
            fail("a message needs a \"type\" string");
        std::string typeText(type->get_string());
        ObjectReader reader(object, typeText);
        reader.optional("type");
        Message message = BodyDecoder(reader, id).decode(typeText);
        reader.finish();
        decoded.message = std::move(message);
    } catch (const DecodeFailure& failure) {
        decoded.error.reason = failure.reason;
        decoded.error.id = id;
    }
    return decoded;
}

}  // namespace

Decoded decode(std::string_view frame, std::size_t maxBytes) noexcept {
    try {
        return decodeFrame(frame, maxBytes);
    } catch (const std::bad_alloc&) {
        Decoded decoded;
        decoded.error.reason = "out of memory";
        return decoded;
    } catch (...) {
        Decoded decoded;
        decoded.error.reason = "undecodable";
        return decoded;
    }
}

}  // namespace tethrix::protocol
