#include "runtime_node.h"

#include <tethrix/protocol/value_text.h>

namespace tethrix::service {

namespace {

std::string spell(const RuntimeNode::Value& value) {
    if (auto* integer = std::get_if<int>(&value))
        return protocol::formatInteger(*integer);
    if (auto* real = std::get_if<double>(&value))
        return protocol::formatReal(*real);
    if (auto* boolean = std::get_if<bool>(&value))
        return protocol::formatBoolean(*boolean);
    if (auto* text = std::get_if<std::string>(&value))
        return *text;
    return std::string();
}

template <typename T, bool (*parse)(std::string_view, T&)>
bool parseInto(const std::string& text, RuntimeNode::Value& value) {
    T parsed{};
    if (!parse(text, parsed))
        return false;
    value = parsed;
    return true;
}

}  // namespace

RuntimeNode::RuntimeNode(protocol::RuntimeNodeType type, std::string name, Value value)
    : type(type),
      name(std::move(name)),
      value(std::move(value)) {}

std::string RuntimeNode::getValueAsString() const {
    return spell(value);
}

bool RuntimeNode::setValueFromString(const std::string& text) {
    switch (type) {
    case protocol::runtimeInteger:
        return parseInto<int, protocol::parseInteger>(text, value);
    case protocol::runtimeReal:
        return parseInto<double, protocol::parseReal>(text, value);
    case protocol::runtimeBoolean:
        return parseInto<bool, protocol::parseBoolean>(text, value);
    case protocol::runtimeString:
        value = text;
        return true;
    default:
        return false;
    }
}

RuntimeNode::Ptr RuntimeNode::clone() const {
    auto copy = std::make_shared<RuntimeNode>(type, name, value);
    copy->properties = properties;
    for (const auto& child : children)
        copy->children.push_back(child->clone());
    for (const auto& row : rows)
        copy->rows.push_back(row ? row->clone() : nullptr);
    if (runtimeItemTemplate)
        copy->runtimeItemTemplate = runtimeItemTemplate->clone();
    return copy;
}

RuntimeNode::Ptr RuntimeNode::findChild(const std::string& childName) const {
    for (const auto& child : children) {
        if (child->name == childName)
            return child;
    }
    return nullptr;
}

RuntimeNode::Ptr RuntimeTreeModel::makeObject(const std::string& name) {
    return std::make_shared<RuntimeNode>(protocol::runtimeObject, name);
}

RuntimeNode::Ptr RuntimeTreeModel::makeList(const std::string& name) {
    return std::make_shared<RuntimeNode>(protocol::runtimeList, name);
}

RuntimeNode::Ptr RuntimeTreeModel::makeValue(const std::string& name, int value) {
    return std::make_shared<RuntimeNode>(protocol::runtimeInteger, name, value);
}

RuntimeNode::Ptr RuntimeTreeModel::makeValue(const std::string& name, double value) {
    return std::make_shared<RuntimeNode>(protocol::runtimeReal, name, value);
}

RuntimeNode::Ptr RuntimeTreeModel::makeValue(const std::string& name, bool value) {
    return std::make_shared<RuntimeNode>(protocol::runtimeBoolean, name, value);
}

RuntimeNode::Ptr RuntimeTreeModel::makeValue(const std::string& name, std::string value) {
    return std::make_shared<RuntimeNode>(protocol::runtimeString, name, std::move(value));
}

}  // namespace tethrix::service
