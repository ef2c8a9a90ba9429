// Applies update text to a Model's runtime tree (see runtime_tree.h): the
// one reading of the update format of docs/runtime-data.md, for the client
// library, which applies what the service sends, and for the service, which
// checks and keeps what is published to it.
//
// An update is checked whole before anything in the tree changes: a fault
// anywhere leaves the tree exactly as it was.
#ifndef TETHRIX_PROTOCOL_RUNTIME_UPDATE_H
#define TETHRIX_PROTOCOL_RUNTIME_UPDATE_H

#include <tethrix/protocol/row_sequence.h>
#include <tethrix/protocol/runtime_tree.h>

#include <boost/json.hpp>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace tethrix::protocol {

/// Why an update was refused.
struct RuntimeUpdateFault {
    /// Where in the update, e.g. "volume" in quotes or "rows[1]"; empty when
    /// the text is not JSON at all.
    std::string where;
    std::string why;

    /// `lead` followed by the fault: "<lead>: not JSON (...)" or
    /// "<lead> at "volume": "4" is not an integer".
    std::string message(const std::string& lead) const;
};

/// The size of a tree and the most it may grow to, in the bytes that
/// stateWeight counts.
struct RuntimeTreeSize {
    std::size_t bytes = 0;
    std::size_t limit = 0;
};

/// About the bytes a subtree takes in state text: its names and the text of
/// its string values, and 16 bytes a node for the punctuation and the other
/// values, which are short. Rows count, templates do not. The count is one
/// that an update's changes can follow exactly, node by node.
template <typename Model>
std::size_t stateWeight(const typename Model::Node& node) {
    std::size_t weight = 16 + node.getNameOverride().size();
    if (typeOf(node) == runtimeString)
        weight += node.getValueAsString().size();
    for (auto child = node.beginChildren(); child != node.endChildren(); ++child) {
        weight += stateWeight<Model>(**child);
    }
    if (const auto* list = typeOf(node) == runtimeList ? Model::asList(node) : nullptr) {
        for (std::size_t i = 0; i < list->itemCount(); ++i) {
            if (const auto row = list->getItem(i))
                weight += stateWeight<Model>(*row);
        }
    }
    return weight;
}

namespace runtime_update {

/// A misfit found while planning; it never leaves applyRuntimeUpdate.
class Misfit : public std::runtime_error {
public:
    Misfit(std::string where, const std::string& why) : std::runtime_error(why), where(std::move(where)) {}
    std::string where;
};

/// Where in the update a value stands, spelt out only for a message.
class Path {
public:
    Path() = default;
    Path(const Path& parent, const std::string& name) : parent(&parent), name(&name) {}
    Path(const Path& parent, std::size_t index) : parent(&parent), index(index) {}

    /// "the top", or the path in quotes.
    std::string describe() const;

private:
    std::string text() const;

    const Path* parent = nullptr;
    const std::string* name = nullptr;
    std::size_t index = 0;
};

[[noreturn]] void refuse(const Path& path, const std::string& why);

/// A JSON value as it stood in the update, cut short for a message.
std::string shown(const boost::json::value& value);

// The readers of values are inline: they run once for each leaf of an
// update. What they refuse goes out of line.
[[noreturn]] void refuseInteger(const boost::json::value& value, const Path& path);
[[noreturn]] void refuseReal(const boost::json::value& value, const Path& path);
[[noreturn]] void refuseBoolean(const boost::json::value& value, const Path& path);
[[noreturn]] void refuseString(const boost::json::value& value, const Path& path);
/// A real given as text, or a refusal.
double readRealText(const boost::json::value& value, const Path& path);

inline int readInteger(const boost::json::value& value, const Path& path) {
    if (value.is_int64() && value.get_int64() >= INT_MIN && value.get_int64() <= INT_MAX) {
        return static_cast<int>(value.get_int64());
    }
    if (value.is_uint64() && value.get_uint64() <= static_cast<std::uint64_t>(INT_MAX)) {
        return static_cast<int>(value.get_uint64());
    }
    refuseInteger(value, path);
}

/// JSON has no infinities and no NaN, so these travel as the strings "inf",
/// "-inf" and "nan"; any other text of a number is taken as well.
inline double readReal(const boost::json::value& value, const Path& path) {
    if (value.is_double())
        return value.get_double();
    if (value.is_int64())
        return static_cast<double>(value.get_int64());
    if (value.is_uint64())
        return static_cast<double>(value.get_uint64());
    return readRealText(value, path);
}

inline bool readBoolean(const boost::json::value& value, const Path& path) {
    if (!value.is_bool())
        refuseBoolean(value, path);
    return value.get_bool();
}

inline std::string readString(const boost::json::value& value, const Path& path) {
    if (!value.is_string())
        refuseString(value, path);
    return std::string(value.get_string());
}

std::size_t readIndex(const boost::json::value& value, const Path& path);

/// The fault of an update that would grow a tree to `bytes`, past `limit`.
RuntimeUpdateFault tooLarge(std::size_t bytes, std::size_t limit);

/// The names of update keys, for paths, which take names by reference.
const std::string& rowsKey();
const std::string& rowKey();

/// Checks the keys of the top and of one row operation.
void checkTopKeys(const boost::json::object& members, const Path& top);
void checkOperationKeys(const boost::json::object& members, const Path& path);

/// The positions of the keys of one JSON object by name. The object's own
/// lookup compares key after key, which a walk over a large node, one
/// lookup per child, cannot afford.
class KeyIndex {
public:
    explicit KeyIndex(const boost::json::object& members) : members(members) {
        if (members.size() <= linearLimit)
            return;
        std::size_t size = 4;
        while (size < 4 * members.size())
            size *= 2;
        slots.assign(size, Slot{0, 0});
        for (std::size_t i = 0; i < members.size(); ++i) {
            const std::uint64_t keyHash = hash(keyAt(i));
            std::size_t slot = keyHash & (size - 1);
            while (slots[slot].position != 0)
                slot = (slot + 1) & (size - 1);
            slots[slot] = Slot{keyHash, i + 1};
        }
    }
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    /// The position of `name` among the keys, or npos. Inline: it runs once
    /// for each child of every object an update names.
    std::size_t find(std::string_view name) const {
        if (slots.empty()) {
            for (std::size_t i = 0; i < members.size(); ++i) {
                if (keyAt(i) == name)
                    return i;
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

private:
    static constexpr std::size_t linearLimit = 8;

    struct Slot {
        std::uint64_t hash;
        std::size_t position;  // position + 1; 0 is free
    };

    std::string_view keyAt(std::size_t i) const {
        const boost::json::string_view key = members.begin()[i].key();
        return std::string_view(key.data(), key.size());
    }

    /// FNV-1a: names are short, and this beats a general hash on them.
    static std::uint64_t hash(std::string_view text) {
        std::uint64_t value = 14695981039346656037ull;
        for (const char c : text)
            value = (value ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        return value;
    }

    const boost::json::object& members;
    std::vector<Slot> slots;
};

/// The parsed text of one update. Most updates parse without touching the
/// heap, into buffers that live as long as this object, on the stack.
class UpdateText {
public:
    explicit UpdateText(std::string_view text);
    UpdateText(const UpdateText&) = delete;
    UpdateText& operator=(const UpdateText&) = delete;

    /// Empty when the text is JSON.
    const std::string& error() const { return syntaxError; }
    const boost::json::value& value() const { return parsed; }

private:
    unsigned char parserBuffer[2048];
    unsigned char valueBuffer[8192];
    boost::json::monotonic_resource resource;
    boost::json::value parsed;
    std::string syntaxError;
};

/// Two subtrees with the same names, types, values, properties, children
/// and rows. A row replaced by an equal one keeps its object, and with it
/// its binding, and is no change.
template <typename Model>
bool sameTree(const typename Model::Node& a, const typename Model::Node& b) {
    if (&a == &b)
        return true;
    if (typeOf(a) != typeOf(b) || a.getNameOverride() != b.getNameOverride() ||
        a.getChildCount() != b.getChildCount() || a.getValueAsString() != b.getValueAsString() ||
        a.getProperties() != b.getProperties()) {
        return false;
    }
    for (auto ia = a.beginChildren(), ib = b.beginChildren(); ia != a.endChildren(); ++ia, ++ib) {
        if (!sameTree<Model>(**ia, **ib))
            return false;
    }
    const auto* listA = Model::asList(a);
    const auto* listB = Model::asList(b);
    if (!listA || !listB)
        return !listA && !listB;
    if (listA->itemCount() != listB->itemCount())
        return false;
    for (std::size_t i = 0; i < listA->itemCount(); ++i) {
        const auto rowA = listA->getItem(i);
        const auto rowB = listB->getItem(i);
        if (!rowA || !rowB ? rowA.get() != rowB.get() : !sameTree<Model>(*rowA, *rowB))
            return false;
    }
    return true;
}

/// The changes one update makes, found and checked before any is made, so
/// that a refused update leaves the tree as it was.
template <typename Model>
class Plan {
public:
    using Node = typename Model::Node;
    using List = typename Model::List;
    using NodePtr = std::shared_ptr<Node>;
    using Rows = std::vector<NodePtr>;

    /// Counts how much the update grows the tree by (see stateWeight), at
    /// the cost of a look at each value and row it replaces.
    void measure() { measuring = true; }
    std::int64_t growth() const { return grown; }

    void planUpdate(Node& target, const boost::json::value& update) {
        const Path top;
        if (!update.is_object())
            refuse(top, "an update is a JSON object, not " + shown(update));
        const boost::json::object& members = update.get_object();
        checkTopKeys(members, top);
        // Values first, whatever the order of the keys: row operations count
        // on the rows that the values set.
        if (const boost::json::value* values = members.if_contains("values"))
            planNode(target, *values, top);
        if (const boost::json::value* operations = members.if_contains("rows")) {
            const Path rowsPath(top, rowsKey());
            if (!operations->is_array()) {
                refuse(rowsPath, "row operations are a JSON array, not " + shown(*operations));
            }
            const boost::json::array& list = operations->get_array();
            for (std::size_t i = 0; i < list.size(); ++i)
                planRowOperation(target, list[i], Path(rowsPath, i));
        }
    }

    /// Makes the changes. Each value that differs fires what its node fires
    /// on a change, once; each list whose rows differ, once.
    void apply() {
        for (ValueChange& change : values)
            applyValue(change);
        for (RowsChange& change : lists)
            change.list->assignItems(change.rows.rows());
    }

    /// A new row for `list` from `value`: the list's template with the
    /// values given, or, without a template, a tree of the JSON's shape.
    static NodePtr makeRow(const List& list, const boost::json::value& value, const Path& path) {
        if (!value.is_object())
            refuse(path, "a row is a JSON object, not " + shown(value));
        if (!list.runtimeItemTemplate)
            return inferObject(defaultRowName, value.get_object(), path);
        NodePtr row = list.runtimeItemTemplate->clone();
        // The row is in no tree yet: nothing can see it being filled.
        Plan fill;
        fill.planObject(*row, value.get_object(), path);
        fill.apply();
        return row;
    }

private:
    using Value = std::variant<int, double, bool, std::string>;
    struct ValueChange {
        Node* node;
        Value value;
    };
    struct RowsChange {
        explicit RowsChange(List& list) : list(&list), rows(list) {}
        List* list;
        RowSequence<List, NodePtr> rows;
    };

    void grow(const Node& added) { grown += static_cast<std::int64_t>(stateWeight<Model>(added)); }
    void shrink(const Node& removed) { grown -= static_cast<std::int64_t>(stateWeight<Model>(removed)); }

    static void checkClass(const Node& node, int type, const Path& path) {
        if (!Model::hasClassOfType(node, type)) {
            refuse(path, "the node's class does not match its type " + std::to_string(type));
        }
    }

    void planNode(Node& node, const boost::json::value& value, const Path& path) {
        const int type = typeOf(node);
        switch (type) {
        case runtimeInteger:
            checkClass(node, type, path);
            values.push_back({&node, readInteger(value, path)});
            return;
        case runtimeReal:
            checkClass(node, type, path);
            values.push_back({&node, readReal(value, path)});
            return;
        case runtimeBoolean:
            checkClass(node, type, path);
            values.push_back({&node, readBoolean(value, path)});
            return;
        case runtimeString:
            checkClass(node, type, path);
            values.push_back({&node, readString(value, path)});
            if (measuring) {
                grown += static_cast<std::int64_t>(std::get<std::string>(values.back().value).size()) -
                         static_cast<std::int64_t>(node.getValueAsString().size());
            }
            return;
        case runtimeObject:
            if (!value.is_object()) {
                refuse(path, "an object takes a JSON object of its children's values, not " + shown(value));
            }
            planObject(node, value.get_object(), path);
            return;
        case runtimeList: {
            if (!value.is_array())
                refuse(path, "a list takes a JSON array of all its rows, not " + shown(value));
            List* list = Model::asList(node);
            if (!list)
                refuse(path, "the node's class does not match its type " + std::to_string(type));
            planRows(*list, value.get_array(), path);
            return;
        }
        }
        refuse(path, "a node of type " + std::to_string(type) + " takes no value");
    }

    /// One pass over the children, each looked up among the keys, rather
    /// than one pass per key: an update of many values of one large object
    /// costs a walk of it once.
    void planObject(Node& node, const boost::json::object& members, const Path& path) {
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
            if (!matched[i])
                refuse(path, "no node called " + quoted(std::string(members.begin()[i].key())));
        }
    }

    void planRows(List& list, const boost::json::array& given, const Path& path) {
        Rows next;
        next.reserve(given.size());
        for (std::size_t i = 0; i < given.size(); ++i)
            next.push_back(makeRow(list, given[i], Path(path, i)));
        RowSequence<List, NodePtr>& pending = pendingRows(list);
        const Rows rows = pending.rows();
        for (std::size_t i = 0; i < next.size() && i < rows.size(); ++i) {
            if (rows[i] && sameTree<Model>(*rows[i], *next[i]))
                next[i] = rows[i];
        }
        if (measuring) {
            for (const NodePtr& row : rows) {
                if (row)
                    shrink(*row);
            }
            for (const NodePtr& row : next)
                grow(*row);
        }
        pending.assign(std::move(next));
    }

    void planRowOperation(Node& target, const boost::json::value& operation, const Path& path) {
        if (!operation.is_object())
            refuse(path, "a row operation is a JSON object, not " + shown(operation));
        const boost::json::object& members = operation.get_object();
        checkOperationKeys(members, path);
        const boost::json::value* listPath = members.if_contains("list");
        if (!listPath || !listPath->is_string())
            refuse(path, "a row operation names its list in \"list\"");
        List& list = findList(target, std::string(listPath->get_string()), path);
        const boost::json::value* row = members.if_contains("row");
        if (const boost::json::value* index = members.if_contains("remove")) {
            if (row)
                refuse(path, "a removal takes no row");
            removeRow(list, readIndex(*index, path), path);
            return;
        }
        if (!row)
            refuse(path, "an insertion or a replacement takes a row");
        const Path rowPath(path, rowKey());
        NodePtr newRow = makeRow(list, *row, rowPath);
        if (const boost::json::value* index = members.if_contains("insert")) {
            insertRow(list, readIndex(*index, path), std::move(newRow), path);
        } else {
            replaceRow(list, readIndex(members.at("replace"), path), std::move(newRow), path);
        }
    }

    void insertRow(List& list, std::size_t index, NodePtr row, const Path& path) {
        RowSequence<List, NodePtr>& rows = pendingRows(list);
        if (index > rows.size()) {
            refuse(path,
                   outside(list, index, rows.size()) + "; an insertion takes 0 to " + std::to_string(rows.size()));
        }
        if (measuring)
            grow(*row);
        rows.insert(index, std::move(row));
    }

    void replaceRow(List& list, std::size_t index, NodePtr row, const Path& path) {
        RowSequence<List, NodePtr>& rows = pendingRows(list);
        if (index >= rows.size())
            refuse(path, outside(list, index, rows.size()));
        const NodePtr present = rows.at(index);
        if (present && sameTree<Model>(*present, *row))
            return;
        if (measuring) {
            if (present)
                shrink(*present);
            grow(*row);
        }
        rows.replace(index, std::move(row));
    }

    void removeRow(List& list, std::size_t index, const Path& path) {
        RowSequence<List, NodePtr>& rows = pendingRows(list);
        if (index >= rows.size())
            refuse(path, outside(list, index, rows.size()));
        const NodePtr removed = rows.remove(index);
        if (measuring && removed)
            shrink(*removed);
    }

    static std::string outside(const List& list, std::size_t index, std::size_t count) {
        return "row " + std::to_string(index) + " is outside the list " + quoted(list.getNameOverride()) + " of " +
               std::to_string(count) + " rows";
    }

    /// The list at a '.'-separated path of names below `target`, the same
    /// for every operation of the update, so looked up once.
    List& findList(Node& target, const std::string& listPath, const Path& path) {
        auto known = listsByPath.find(listPath);
        if (known != listsByPath.end())
            return *known->second;
        List& list = lookUpList(target, listPath, path);
        listsByPath.emplace(listPath, &list);
        return list;
    }

    static List& lookUpList(Node& target, const std::string& listPath, const Path& path) {
        Node* node = &target;
        std::size_t begin = 0;
        while (begin <= listPath.size() && !listPath.empty()) {
            std::size_t end = listPath.find('.', begin);
            if (end == std::string::npos)
                end = listPath.size();
            const std::string name = listPath.substr(begin, end - begin);
            if (typeOf(*node) != runtimeObject) {
                refuse(path,
                       "no list " + quoted(listPath) + ": " + quoted(node->getNameOverride()) + " is not an object");
            }
            const NodePtr child = node->findChild(name);
            if (!child)
                refuse(path, "no list " + quoted(listPath) + ": no node called " + quoted(name));
            node = child.get();
            begin = end + 1;
        }
        List* list = typeOf(*node) == runtimeList ? Model::asList(*node) : nullptr;
        if (!list)
            refuse(path, quoted(listPath) + " is not a list");
        return *list;
    }

    /// The rows that `list` will have, as far as the plan has got; its
    /// present rows the first time.
    RowSequence<List, NodePtr>& pendingRows(List& list) {
        auto known = changeOf.find(&list);
        if (known != changeOf.end())
            return known->second->rows;
        lists.emplace_back(list);
        changeOf.emplace(&list, &lists.back());
        return lists.back().rows;
    }

    static void applyValue(ValueChange& change) {
        // planNode checked each node's class against the kind of value.
        switch (change.value.index()) {
        case 0:
            return Model::setValue(*change.node, std::get<int>(change.value));
        case 1:
            return Model::setValue(*change.node, std::get<double>(change.value));
        case 2:
            return Model::setValue(*change.node, std::get<bool>(change.value));
        default:
            return Model::setValue(*change.node, std::move(std::get<std::string>(change.value)));
        }
    }

    static NodePtr inferNode(const std::string& name, const boost::json::value& value, const Path& path) {
        switch (value.kind()) {
        case boost::json::kind::bool_:
            return Model::makeValue(name, value.get_bool());
        case boost::json::kind::int64:
        case boost::json::kind::uint64:
            return Model::makeValue(name, readInteger(value, path));
        case boost::json::kind::double_:
            return Model::makeValue(name, value.get_double());
        case boost::json::kind::string:
            return Model::makeValue(name, std::string(value.get_string()));
        case boost::json::kind::object:
            return inferObject(name, value.get_object(), path);
        case boost::json::kind::array: {
            auto list = Model::makeList(name);
            Rows rows;
            const boost::json::array& given = value.get_array();
            for (std::size_t i = 0; i < given.size(); ++i)
                rows.push_back(makeRow(*list, given[i], Path(path, i)));
            list->assignItems(std::move(rows));
            return list;
        }
        case boost::json::kind::null:
            break;
        }
        refuse(path, "null is no value");
    }

    static NodePtr inferObject(const std::string& name, const boost::json::object& members, const Path& path) {
        NodePtr node = Model::makeObject(name);
        for (const auto& member : members) {
            const std::string childName(member.key());
            const Path childPath(path, childName);
            if (!isReachableName(childName))
                refuse(childPath, "a name is not empty and holds no '.'");
            node->addChild(inferNode(childName, member.value(), childPath));
        }
        return node;
    }

    std::vector<ValueChange> values;
    /// In a deque: each change stays where changeOf points.
    std::deque<RowsChange> lists;
    std::unordered_map<const List*, RowsChange*> changeOf;
    std::unordered_map<std::string, List*> listsByPath;
    bool measuring = false;
    std::int64_t grown = 0;
};

}  // namespace runtime_update

/// Applies `text` to the tree at `target`, whole or not at all. Gives the
/// fault of a refused update. With `size`, refuses an update that would
/// grow the tree past size->limit, and keeps size->bytes current.
template <typename Model>
std::optional<RuntimeUpdateFault> applyRuntimeUpdate(std::string_view text, typename Model::Node& target,
                                                     RuntimeTreeSize* size = nullptr) {
    const runtime_update::UpdateText update(text);
    if (!update.error().empty())
        return RuntimeUpdateFault{std::string(), "not JSON (" + update.error() + ")"};
    runtime_update::Plan<Model> plan;
    if (size)
        plan.measure();
    try {
        plan.planUpdate(target, update.value());
    } catch (const runtime_update::Misfit& misfit) {
        return RuntimeUpdateFault{misfit.where, misfit.what()};
    }
    if (size) {
        const std::int64_t after = static_cast<std::int64_t>(size->bytes) + plan.growth();
        const std::size_t bytes = after < 0 ? 0 : static_cast<std::size_t>(after);
        if (bytes > size->limit)
            return runtime_update::tooLarge(bytes, size->limit);
        size->bytes = bytes;
    }
    plan.apply();
    return std::nullopt;
}

}  // namespace tethrix::protocol

#endif
