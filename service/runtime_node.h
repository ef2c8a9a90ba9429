// The service's own model of a runtime data tree: plain nodes without the
// handlers and bindings that the client library's classes carry. The XML
// reader, the update planner and the state writer of protocol/ work on it
// through RuntimeTreeModel, which is why a node's members have the names of
// the client's RuntimeDataObject.
#ifndef TETHRIX_SERVICE_RUNTIME_NODE_H
#define TETHRIX_SERVICE_RUNTIME_NODE_H

#include <tethrix/protocol/runtime_tree.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace tethrix::service {

/// One node of any type: a plain object, a value or a list.
class RuntimeNode {
public:
    using Ptr = std::shared_ptr<RuntimeNode>;
    using Children = std::vector<Ptr>;
    using Value = std::variant<std::monostate, int, double, bool, std::string>;

    RuntimeNode(protocol::RuntimeNodeType type, std::string name, Value value = {});

    protocol::RuntimeNodeType getType() const { return type; }
    const std::string& getNameOverride() const { return name; }
    const Value& getValue() const { return value; }
    /// The value as the XML and the update text spell it.
    std::string getValueAsString() const;
    /// Parses `text` into the value; false, and no change, if it does not fit.
    bool setValueFromString(const std::string& text);
    void setValue(Value newValue) { value = std::move(newValue); }
    /// A deep copy, rows and template included.
    Ptr clone() const;

    const std::map<std::string, std::string>& getProperties() const { return properties; }
    void setStringProperty(const std::string& property, std::string text) { properties[property] = std::move(text); }

    void addChild(const Ptr& child) { children.push_back(child); }
    Children::const_iterator beginChildren() const { return children.begin(); }
    Children::const_iterator endChildren() const { return children.end(); }
    std::size_t getChildCount() const { return children.size(); }
    /// The first child called `childName`; null if none.
    Ptr findChild(const std::string& childName) const;

    // A list's rows and the template of a row.
    std::size_t itemCount() const { return rows.size(); }
    Ptr getItem(std::size_t index) const { return index < rows.size() ? rows[index] : nullptr; }
    void assignItems(Children newRows) { rows = std::move(newRows); }
    Ptr runtimeItemTemplate;

private:
    protocol::RuntimeNodeType type;
    std::string name;
    Value value;
    std::map<std::string, std::string> properties;
    Children children;
    Children rows;
};

struct RuntimeTreeModel {
    using Node = RuntimeNode;
    using List = RuntimeNode;

    static RuntimeNode::Ptr makeObject(const std::string& name);
    static RuntimeNode::Ptr makeList(const std::string& name);
    static RuntimeNode::Ptr makeValue(const std::string& name, int value);
    static RuntimeNode::Ptr makeValue(const std::string& name, double value);
    static RuntimeNode::Ptr makeValue(const std::string& name, bool value);
    static RuntimeNode::Ptr makeValue(const std::string& name, std::string value);

    static List* asList(Node& node) { return node.getType() == protocol::runtimeList ? &node : nullptr; }
    static const List* asList(const Node& node) { return node.getType() == protocol::runtimeList ? &node : nullptr; }
    /// One class serves every type.
    static bool hasClassOfType(const Node&, int) { return true; }

    static void setValue(Node& node, int value) { node.setValue(value); }
    static void setValue(Node& node, double value) { node.setValue(value); }
    static void setValue(Node& node, bool value) { node.setValue(value); }
    static void setValue(Node& node, std::string value) { node.setValue(std::move(value)); }
};

}  // namespace tethrix::service

#endif
