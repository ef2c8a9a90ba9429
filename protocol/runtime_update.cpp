#include <tethrix/protocol/runtime_update.h>

#include "json_reader.h"

#include <tethrix/protocol/value_text.h>

namespace tethrix::protocol {

namespace json = boost::json;

std::string RuntimeUpdateFault::message(const std::string& lead) const {
    if (where.empty())
        return lead + ": " + why;
    return lead + " at " + where + ": " + why;
}

namespace runtime_update {

std::string Path::describe() const {
    const std::string path = text();
    return path.empty() ? "the top" : quoted(path);
}

std::string Path::text() const {
    if (!parent)
        return std::string();
    const std::string base = parent->text();
    if (!name)
        return base + "[" + std::to_string(index) + "]";
    return base.empty() ? *name : base + "." + *name;
}

void refuse(const Path& path, const std::string& why) {
    throw Misfit(path.describe(), why);
}

std::string shown(const json::value& value) {
    std::string text = value.is_double() ? formatReal(value.get_double()) : json::serialize(value);
    if (text.size() > 40)
        text = text.substr(0, 37) + "...";
    return text;
}

void refuseInteger(const json::value& value, const Path& path) {
    if (value.is_int64() || value.is_uint64())
        refuse(path, shown(value) + " is beyond the range of an integer");
    refuse(path, shown(value) + " is not an integer");
}

double readRealText(const json::value& value, const Path& path) {
    double parsed = 0.0;
    if (value.is_string() && parseReal(std::string_view(value.get_string()), parsed))
        return parsed;
    refuseReal(value, path);
}

void refuseReal(const json::value& value, const Path& path) {
    refuse(path, shown(value) + " is not a real");
}

void refuseBoolean(const json::value& value, const Path& path) {
    refuse(path, shown(value) + " is not a boolean (true or false)");
}

void refuseString(const json::value& value, const Path& path) {
    refuse(path, shown(value) + " is not a string");
}

std::size_t readIndex(const json::value& value, const Path& path) {
    if (value.is_int64() && value.get_int64() >= 0)
        return static_cast<std::size_t>(value.get_int64());
    if (value.is_uint64())
        return static_cast<std::size_t>(value.get_uint64());
    refuse(path, shown(value) + " is not a row index");
}

RuntimeUpdateFault tooLarge(std::size_t bytes, std::size_t limit) {
    return RuntimeUpdateFault{std::string(), "the tree would grow to about " + std::to_string(bytes) +
                                                 " bytes, past its limit of " + std::to_string(limit) +
                                                 "; remove rows or shorten values first"};
}

const std::string& rowsKey() {
    static const std::string key = "rows";
    return key;
}

const std::string& rowKey() {
    static const std::string key = "row";
    return key;
}

void checkTopKeys(const json::object& members, const Path& top) {
    for (const auto& member : members) {
        if (member.key() != "values" && member.key() != "rows") {
            refuse(top, "unknown key " + quoted(std::string(member.key())));
        }
    }
}

void checkOperationKeys(const json::object& members, const Path& path) {
    int actions = 0;
    for (const auto& member : members) {
        const json::string_view key = member.key();
        if (key == "insert" || key == "replace" || key == "remove") {
            ++actions;
        } else if (key != "list" && key != "row") {
            refuse(path, "unknown key " + quoted(std::string(key)));
        }
    }
    if (actions != 1)
        refuse(path, "a row operation is one of insert, replace and remove");
}

UpdateText::UpdateText(std::string_view text) : resource(valueBuffer, sizeof valueBuffer), parsed(&resource) {
    // Same storage on both sides: the result is moved, not copied onto the heap.
    const JsonParseStatus status = readJsonInto(text, &resource, parserBuffer, sizeof parserBuffer, parsed);
    if (status.code)
        syntaxError = status.code.message() + " at byte " + std::to_string(status.consumed);
}

}  // namespace runtime_update
}  // namespace tethrix::protocol
