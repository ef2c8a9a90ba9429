#include <zarvo/runtime_data.h>

#include "runtime_data_format.h"

#include <zarvo/client/value_text.h>
#include <zarvo/log.h>

#include <boost/json.hpp>

#include <climits>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zarvo {

namespace {

namespace json = boost::json;
using NodePtr = std::shared_ptr<RuntimeDataObject>;
using Rows = std::vector<NodePtr>;

/// Why an update does not fit; it never leaves this file.
class UpdateError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where in the update a value stands, spelt out only for a message.
class Path {
public:
    Path() = default;
    Path(const Path& parent, const std::string& name) : parent(&parent), name(&name) {}
    Path(const Path& parent, std::size_t index) : parent(&parent), index(index) {}

    std::string describe() const {
        const std::string path = text();
        return path.empty() ? "the top" : "\"" + path + "\"";
    }

private:
    std::string text() const {
        if (!parent) {
            return std::string();
        }
        const std::string base = parent->text();
        if (!name) {
            return base + "[" + std::to_string(index) + "]";
        }
        return base.empty() ? *name : base + "." + *name;
    }

    const Path* parent = nullptr;
    const std::string* name = nullptr;
    std::size_t index = 0;
};

[[noreturn]] void refuse(const Path& path, const std::string& why) {
    throw UpdateError("at " + path.describe() + ": " + why);
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

/// A JSON value as it stood in the update, cut short for a message.
std::string shown(const json::value& value) {
    std::string text = value.is_double() ? client::formatReal(value.get_double()) : json::serialize(value);
    if (text.size() > 40) {
        text = text.substr(0, 37) + "...";
    }
    return text;
}

/// Two subtrees with the same names, types, values, properties, children
/// and rows. A row replaced by an equal one keeps its object, and with it
/// its binding, and is no change.
bool sameTree(const RuntimeDataObject& a, const RuntimeDataObject& b) {
    if (&a == &b) {
        return true;
    }
    if (a.getType() != b.getType() || a.getNameOverride() != b.getNameOverride() ||
        a.getChildCount() != b.getChildCount() || a.getValueAsString() != b.getValueAsString() ||
        a.getProperties() != b.getProperties()) {
        return false;
    }
    for (auto ia = a.beginChildren(), ib = b.beginChildren(); ia != a.endChildren(); ++ia, ++ib) {
        if (!sameTree(**ia, **ib)) {
            return false;
        }
    }
    const auto* listA = dynamic_cast<const RuntimeDataObjectList*>(&a);
    const auto* listB = dynamic_cast<const RuntimeDataObjectList*>(&b);
    if (!listA || !listB) {
        return !listA && !listB;
    }
    if (listA->itemCount() != listB->itemCount()) {
        return false;
    }
    for (std::size_t i = 0; i < listA->itemCount(); ++i) {
        const NodePtr rowA = listA->getItem(i);
        const NodePtr rowB = listB->getItem(i);
        if (!rowA || !rowB ? rowA != rowB : !sameTree(*rowA, *rowB)) {
            return false;
        }
    }
    return true;
}

int readInteger(const json::value& value, const Path& path) {
    if (value.is_int64() && value.get_int64() >= INT_MIN && value.get_int64() <= INT_MAX) {
        return static_cast<int>(value.get_int64());
    }
    if (value.is_uint64() && value.get_uint64() <= static_cast<std::uint64_t>(INT_MAX)) {
        return static_cast<int>(value.get_uint64());
    }
    if (value.is_int64() || value.is_uint64()) {
        refuse(path, shown(value) + " is beyond the range of an integer");
    }
    refuse(path, shown(value) + " is not an integer");
}

/// JSON has no infinities and no NaN, so these travel as the strings "inf",
/// "-inf" and "nan"; any other text of a number is taken as well.
double readReal(const json::value& value, const Path& path) {
    if (value.is_double()) {
        return value.get_double();
    }
    if (value.is_int64()) {
        return static_cast<double>(value.get_int64());
    }
    if (value.is_uint64()) {
        return static_cast<double>(value.get_uint64());
    }
    double parsed = 0.0;
    if (value.is_string() && client::parseReal(std::string(value.get_string()), parsed)) {
        return parsed;
    }
    refuse(path, shown(value) + " is not a real");
}

bool readBoolean(const json::value& value, const Path& path) {
    if (!value.is_bool()) {
        refuse(path, shown(value) + " is not a boolean (true or false)");
    }
    return value.get_bool();
}

std::string readString(const json::value& value, const Path& path) {
    if (!value.is_string()) {
        refuse(path, shown(value) + " is not a string");
    }
    return std::string(value.get_string());
}

std::size_t readIndex(const json::value& value, const Path& path) {
    if (value.is_int64() && value.get_int64() >= 0) {
        return static_cast<std::size_t>(value.get_int64());
    }
    if (value.is_uint64()) {
        return static_cast<std::size_t>(value.get_uint64());
    }
    refuse(path, shown(value) + " is not a row index");
}

// Path takes names by reference; these are the names of update keys.
const std::string& rowsKey() {
    static const std::string key = "rows";
    return key;
}

const std::string& rowKey() {
    static const std::string key = "row";
    return key;
}

/// The positions of the keys of one JSON object by name. The object's own
/// lookup compares key after key, which a walk over a large node, one
/// lookup per child, cannot afford.
class KeyIndex {
public:
    explicit KeyIndex(const json::object& members) : members(members) {
        if (members.size() <= linearLimit) {
            return;
        }
        std::size_t size = 4;
        while (size < 4 * members.size()) {
            size *= 2;
        }
        slots.assign(size, Slot{0, 0});
        for (std::size_t i = 0; i < members.size(); ++i) {
            const std::uint64_t keyHash = hash(keyAt(i));
            std::size_t slot = keyHash & (size - 1);
            while (slots[slot].position != 0) {
                slot = (slot + 1) & (size - 1);
            }
            slots[slot] = Slot{keyHash, i + 1};
        }
    }

    /// The position of `name` among the keys, or npos.
    std::size_t find(std::string_view name) const {
        if (slots.empty()) {
            for (std::size_t i = 0; i < members.size(); ++i) {
                if (keyAt(i) == name) {
                    return i;
                }
            }
            return npos;
        }
        const std::uint64_t nameHash = hash(name);
        for (std::size_t slot = nameHash & (slots.size() - 1); slots[slot].position != 0;
             slot = (slot + 1) & (slots.size() - 1)) {
            if (slots[slot].hash == nameHash && keyAt(slots[slot].position - 1) == name) {
                return slots[slot].position - 1;
            }
        }
        return npos;
    }

    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

private:
    static constexpr std::size_t linearLimit = 8;

    struct Slot {
        std::uint64_t hash;
        std::size_t position;  // position + 1; 0 is free
    };

    std::string_view keyAt(std::size_t i) const {
        const json::string_view key = members.begin()[i].key();
        return std::string_view(key.data(), key.size());
    }

    /// FNV-1a: names are short, and this beats a general hash on them.
    static std::uint64_t hash(std::string_view text) {
        std::uint64_t value = 14695981039346656037ull;
        for (const char c : text) {
            value = (value ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        }
        return value;
    }

    const json::object& members;
    std::vector<Slot> slots;
};

/// The changes one update makes, found and checked before any is made, so
/// that a refused update leaves the tree as it was.
class UpdatePlan {
public:
    void planUpdate(RuntimeDataObject& target, const json::value& update) {
        const Path top;
        if (!update.is_object()) {
            refuse(top, "an update is a JSON object, not " + shown(update));
        }
        const json::object& members = update.get_object();
        for (const auto& member : members) {
            if (member.key() != "values" && member.key() != "rows") {
                refuse(top, "unknown key " + quoted(std::string(member.key())));
            }
        }
        // Values first, whatever the order of the keys: row operations count
        // on the rows that the values set.
        if (const json::value* values = members.if_contains("values")) {
            planNode(target, *values, top);
        }
        if (const json::value* operations = members.if_contains("rows")) {
            const Path rowsPath(top, rowsKey());
            if (!operations->is_array()) {
                refuse(rowsPath, "row operations are a JSON array, not " + shown(*operations));
            }
            const json::array& list = operations->get_array();
            for (std::size_t i = 0; i < list.size(); ++i) {
                planRowOperation(target, list[i], Path(rowsPath, i));
            }
        }
    }

    /// Makes the changes. Each value that differs fires its node's handlers
    /// once; each list whose rows differ fires the list's handlers once.
    void apply() {
        for (ValueChange& change : values) {
            applyValue(change);
        }
        for (RowsChange& change : lists) {
            change.list->assignItems(std::move(change.rows));
        }
    }

    /// A new row for `list` from `value`: the list's template with the
    /// values given, or, without a template, a tree of the JSON's shape.
    static NodePtr makeRow(const RuntimeDataObjectList& list, const json::value& value, const Path& path) {
        if (!value.is_object()) {
            refuse(path, "a row is a JSON object, not " + shown(value));
        }
        if (!list.runtimeItemTemplate) {
            return inferObject(client::defaultRowName, value.get_object(), path);
        }
        NodePtr row = list.runtimeItemTemplate->clone();
        // The row is in no tree yet: no handler can see it being filled.
        UpdatePlan fill;
        fill.planObject(*row, value.get_object(), path);
        fill.apply();
        return row;
    }

private:
    using Value = std::variant<int, double, bool, std::string>;
    struct ValueChange {
        RuntimeDataObject* node;
        Value value;
    };
    struct RowsChange {
        RuntimeDataObjectList* list;
        Rows rows;
    };

    template <typename Typed>
    static Typed& typed(RuntimeDataObject& node, const Path& path) {
        auto* result = dynamic_cast<Typed*>(&node);
        if (!result) {
            refuse(path, "the node's class does not match its type " + std::to_string(node.getType()));
        }
        return *result;
    }

    void planNode(RuntimeDataObject& node, const json::value& value, const Path& path) {
        switch (node.getType()) {
        case RuntimeDataObject::TypeInteger:
            values.push_back({&typed<RuntimeDataObjectInteger>(node, path), readInteger(value, path)});
            return;
        case RuntimeDataObject::TypeReal:
            values.push_back({&typed<RuntimeDataObjectReal>(node, path), readReal(value, path)});
            return;
        case RuntimeDataObject::TypeBoolean:
            values.push_back({&typed<RuntimeDataObjectBoolean>(node, path), readBoolean(value, path)});
            return;
        case RuntimeDataObject::TypeString:
            values.push_back({&typed<RuntimeDataObjectString>(node, path), readString(value, path)});
            return;
        case RuntimeDataObject::TypeObject:
            if (!value.is_object()) {
                refuse(path, "an object takes a JSON object of its children's values, not " + shown(value));
            }
            planObject(node, value.get_object(), path);
            return;
        case RuntimeDataObject::TypeList:
            if (!value.is_array()) {
                refuse(path, "a list takes a JSON array of all its rows, not " + shown(value));
            }
            planRows(typed<RuntimeDataObjectList>(node, path), value.get_array(), path);
            return;
        }
        refuse(path, "a node of type " + std::to_string(node.getType()) + " takes no value");
    }

    /// One pass over the children, each looked up among the keys, rather
    /// than one pass per key: an update of many values of one large object
    /// costs a walk of it once.
    void planObject(RuntimeDataObject& node, const json::object& members, const Path& path) {
        const KeyIndex keys(members);
        std::vector<bool> matched(members.size(), false);
        std::size_t unmatched = members.size();
        for (auto child = node.beginChildren(); child != node.endChildren() && unmatched != 0; ++child) {
            const std::string name = (*child)->getNameOverride();
            const std::size_t position = keys.find(name);
            if (position == KeyIndex::npos || matched[position]) {
                continue;  // not in the update, or a later child of the same name: the first one counts
            }
            matched[position] = true;
            --unmatched;
            planNode(**child, members.begin()[position].value(), Path(path, name));
        }
        for (std::size_t i = 0; i < members.size() && unmatched != 0; ++i) {
            if (!matched[i]) {
                refuse(path, "no node called " + quoted(std::string(members.begin()[i].key())));
            }
        }
    }

    void planRows(RuntimeDataObjectList& list, const json::array& given, const Path& path) {
        Rows next;
        next.reserve(given.size());
        for (std::size_t i = 0; i < given.size(); ++i) {
            next.push_back(makeRow(list, given[i], Path(path, i)));
        }
        Rows& rows = pendingRows(list);
        for (std::size_t i = 0; i < next.size() && i < rows.size(); ++i) {
            if (sameTree(*rows[i], *next[i])) {
                next[i] = rows[i];
            }
        }
        rows = std::move(next);
    }

    void planRowOperation(RuntimeDataObject& target, const json::value& operation, const Path& path) {
        if (!operation.is_object()) {
            refuse(path, "a row operation is a JSON object, not " + shown(operation));
        }
        const json::object& members = operation.get_object();
        int actions = 0;
        for (const auto& member : members) {
            const json::string_view key = member.key();
            if (key == "insert" || key == "replace" || key == "remove") {
                ++actions;
            } else if (key != "list" && key != "row") {
                refuse(path, "unknown key " + quoted(std::string(key)));
            }
        }
        if (actions != 1) {
            refuse(path, "a row operation is one of insert, replace and remove");
        }
        const json::value* listPath = members.if_contains("list");
        if (!listPath || !listPath->is_string()) {
            refuse(path, "a row operation names its list in \"list\"");
        }
        RuntimeDataObjectList& list = findList(target, std::string(listPath->get_string()), path);
        const json::value* row = members.if_contains("row");
        if (const json::value* index = members.if_contains("remove")) {
            if (row) {
                refuse(path, "a removal takes no row");
            }
            removeRow(list, readIndex(*index, path), path);
            return;
        }
        if (!row) {
            refuse(path, "an insertion or a replacement takes a row");
        }
        const Path rowPath(path, rowKey());
        NodePtr newRow = makeRow(list, *row, rowPath);
        if (const json::value* index = members.if_contains("insert")) {
            insertRow(list, readIndex(*index, path), std::move(newRow), path);
        } else {
            replaceRow(list, readIndex(members.at("replace"), path), std::move(newRow), path);
        }
    }

    void insertRow(RuntimeDataObjectList& list, std::size_t index, NodePtr row, const Path& path) {
        Rows& rows = pendingRows(list);
        if (index > rows.size()) {
            refuse(path, outside(list, index, rows.size()) + "; an insertion takes 0 to " + std::to_string(rows.size()));
        }
        rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(index), std::move(row));
    }

    void replaceRow(RuntimeDataObjectList& list, std::size_t index, NodePtr row, const Path& path) {
        Rows& rows = pendingRows(list);
        if (index >= rows.size()) {
            refuse(path, outside(list, index, rows.size()));
        }
        if (!sameTree(*rows[index], *row)) {
            rows[index] = std::move(row);
        }
    }

    void removeRow(RuntimeDataObjectList& list, std::size_t index, const Path& path) {
        Rows& rows = pendingRows(list);
        if (index >= rows.size()) {
            refuse(path, outside(list, index, rows.size()));
        }
        rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(index));
    }

    static std::string outside(const RuntimeDataObjectList& list, std::size_t index, std::size_t count) {
        return "row " + std::to_string(index) + " is outside the list " + quoted(list.getNameOverride()) + " of " +
               std::to_string(count) + " rows";
    }

    /// The list at a '.'-separated path of names below `target`.
    static RuntimeDataObjectList& findList(RuntimeDataObject& target, const std::string& listPath, const Path& path) {
        RuntimeDataObject* node = &target;
        std::size_t begin = 0;
        while (begin <= listPath.size() && !listPath.empty()) {
            std::size_t end = listPath.find('.', begin);
            if (end == std::string::npos) {
                end = listPath.size();
            }
            const std::string name = listPath.substr(begin, end - begin);
            if (node->getType() != RuntimeDataObject::TypeObject) {
                refuse(path, "no list " + quoted(listPath) + ": " + quoted(node->getNameOverride()) +
                                 " is not an object");
            }
            const NodePtr child = node->findChild(name);
            if (!child) {
                refuse(path, "no list " + quoted(listPath) + ": no node called " + quoted(name));
            }
            node = child.get();
            begin = end + 1;
        }
        auto* list = dynamic_cast<RuntimeDataObjectList*>(node);
        if (!list) {
            refuse(path, quoted(listPath) + " is not a list");
        }
        return *list;
    }

    /// The rows that `list` will have, as far as the plan has got; its
    /// present rows the first time.
    Rows& pendingRows(RuntimeDataObjectList& list) {
        for (RowsChange& change : lists) {
            if (change.list == &list) {
                return change.rows;
            }
        }
        Rows rows;
        rows.reserve(list.itemCount());
        for (std::size_t i = 0; i < list.itemCount(); ++i) {
            rows.push_back(list.getItem(i));
        }
        lists.push_back({&list, std::move(rows)});
        return lists.back().rows;
    }

    static void applyValue(ValueChange& change) {
        // planNode checked each node's class against the kind of value.
        switch (change.value.index()) {
        case 0:
            static_cast<RuntimeDataObjectInteger*>(change.node)->setValue(std::get<int>(change.value));
            return;
        case 1:
            static_cast<RuntimeDataObjectReal*>(change.node)->setValue(std::get<double>(change.value));
            return;
        case 2:
            static_cast<RuntimeDataObjectBoolean*>(change.node)->setValue(std::get<bool>(change.value));
            return;
        default:
            static_cast<RuntimeDataObjectString*>(change.node)
                ->setValue(std::move(std::get<std::string>(change.value)));
            return;
        }
    }

    static NodePtr inferNode(const std::string& name, const json::value& value, const Path& path) {
        switch (value.kind()) {
        case json::kind::bool_:
            return std::make_shared<RuntimeDataObjectBoolean>(nullptr, name, value.get_bool());
        case json::kind::int64:
        case json::kind::uint64:
            return std::make_shared<RuntimeDataObjectInteger>(nullptr, name, readInteger(value, path));
        case json::kind::double_:
            return std::make_shared<RuntimeDataObjectReal>(nullptr, name, value.get_double());
        case json::kind::string:
            return std::make_shared<RuntimeDataObjectString>(nullptr, name, std::string(value.get_string()));
        case json::kind::object:
            return inferObject(name, value.get_object(), path);
        case json::kind::array: {
            auto list = std::make_shared<RuntimeDataObjectList>(nullptr, name);
            Rows rows;
            const json::array& given = value.get_array();
            for (std::size_t i = 0; i < given.size(); ++i) {
                rows.push_back(makeRow(*list, given[i], Path(path, i)));
            }
            list->assignItems(std::move(rows));
            return list;
        }
        case json::kind::null:
            break;
        }
        refuse(path, "null is no value");
    }

    static NodePtr inferObject(const std::string& name, const json::object& members, const Path& path) {
        auto node = std::make_shared<RuntimeDataObject>(nullptr, name, std::string());
        for (const auto& member : members) {
            const std::string childName(member.key());
            const Path childPath(path, childName);
            if (!client::isReachableName(childName)) {
                refuse(childPath, "a name is not empty and holds no '.'");
            }
            node->addChild(inferNode(childName, member.value(), childPath));
        }
        return node;
    }

    std::vector<ValueChange> values;
    std::vector<RowsChange> lists;
};

}  // namespace

void RuntimeDataInternalizer::internalize(const std::string& data, std::shared_ptr<RuntimeDataObject> target) {
    if (!target) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data update refused: no tree to apply it to");
        return;
    }
    // Most updates parse without touching the heap.
    unsigned char parserBuffer[2048];
    unsigned char valueBuffer[8192];
    json::monotonic_resource resource(valueBuffer, sizeof valueBuffer);
    json::stream_parser parser(json::storage_ptr(), json::parse_options(), parserBuffer, sizeof parserBuffer);
    parser.reset(&resource);
    boost::system::error_code error;
    const std::size_t used = parser.write(data.data(), data.size(), error);
    if (!error) {
        parser.finish(error);
    }
    if (error) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data update refused: not JSON ({} at byte {})",
                        error.message(), used);
        return;
    }
    const json::value update = parser.release();

    UpdatePlan plan;
    try {
        plan.planUpdate(*target, update);
    } catch (const UpdateError& refusal) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data update refused {}", refusal.what());
        return;
    }
    plan.apply();
}

}  // namespace zarvo
