#include <zarvo/runtime_data.h>

#include "runtime_data_format.h"

#include <zarvo/client/value_text.h>
#include <zarvo/log.h>

#include <tinyxml2.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace zarvo {

namespace {

using tinyxml2::XMLElement;
using NodePtr = std::shared_ptr<RuntimeDataObject>;

enum class NodeKind { Other, Integer, Real, Boolean, String, Object, List };

NodeKind kindOf(const XMLElement& element) {
    struct Entry {
        const char* name;
        NodeKind kind;
    };
    // The short names are those of a content source's field types, which an
    // engineer writing both kinds of source will reach for.
    static const Entry entries[] = {
        {"integer", NodeKind::Integer}, {"int", NodeKind::Integer},  {"real", NodeKind::Real},
        {"float", NodeKind::Real},      {"boolean", NodeKind::Boolean}, {"bool", NodeKind::Boolean},
        {"string", NodeKind::String},   {"object", NodeKind::Object}, {"list", NodeKind::List},
    };
    for (const Entry& entry : entries) {
        if (std::strcmp(element.Name(), entry.name) == 0) {
            return entry.kind;
        }
    }
    return NodeKind::Other;
}

bool isValueKind(NodeKind kind) {
    return kind == NodeKind::Integer || kind == NodeKind::Real || kind == NodeKind::Boolean ||
           kind == NodeKind::String;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

/// `<integer name="volume">`, to point at the element in a message.
std::string describe(const XMLElement& element) {
    std::string text = std::string("<") + element.Name();
    if (const char* name = element.Attribute("name")) {
        text += " name=" + quoted(name);
    }
    return text + ">";
}

bool hasVisibleText(const XMLElement& element) {
    for (const tinyxml2::XMLNode* node = element.FirstChild(); node; node = node->NextSibling()) {
        if (!node->ToText()) {
            continue;
        }
        for (const char* c = node->Value(); *c; ++c) {
            if (!std::isspace(static_cast<unsigned char>(*c))) {
                return true;
            }
        }
    }
    return false;
}

/// Every attribute but the ones the grammar itself reads is a property.
void copyProperties(const XMLElement& element, RuntimeDataObject& node, bool isValue) {
    for (const tinyxml2::XMLAttribute* attribute = element.FirstAttribute(); attribute;
         attribute = attribute->Next()) {
        const char* name = attribute->Name();
        if (std::strcmp(name, "name") == 0 || (isValue && std::strcmp(name, "value") == 0)) {
            continue;
        }
        node.setStringProperty(name, attribute->Value());
    }
}

/// A value node of `kind` holding `text`, or its zero value without text;
/// null if the text does not read as that kind.
NodePtr makeValue(NodeKind kind, const std::string& name, const char* text) {
    switch (kind) {
    case NodeKind::Integer: {
        int value = 0;
        if (text && !client::parseInteger(text, value)) {
            return nullptr;
        }
        return std::make_shared<RuntimeDataObjectInteger>(nullptr, name, value);
    }
    case NodeKind::Real: {
        double value = 0.0;
        if (text && !client::parseReal(text, value)) {
            return nullptr;
        }
        return std::make_shared<RuntimeDataObjectReal>(nullptr, name, value);
    }
    case NodeKind::Boolean: {
        bool value = false;
        if (text && !client::parseBoolean(text, value)) {
            return nullptr;
        }
        return std::make_shared<RuntimeDataObjectBoolean>(nullptr, name, value);
    }
    default:
        return std::make_shared<RuntimeDataObjectString>(nullptr, name, text ? text : "");
    }
}

const char* kindWord(NodeKind kind) {
    switch (kind) {
    case NodeKind::Integer:
        return "an integer";
    case NodeKind::Real:
        return "a real";
    case NodeKind::Boolean:
        return "a boolean (1, 0, true or false)";
    default:
        return "a string";
    }
}

/// Reads the content of one element into a tree. Stops at the first fault,
/// which it logs with the line where it is.
class TreeReader {
public:
    NodePtr readTop(const XMLElement& element) {
        auto root = std::make_shared<RuntimeDataObject>(nullptr, std::string(), std::string());
        return readChildren(element, *root, true) ? root : nullptr;
    }

private:
    static std::nullptr_t refuse(const XMLElement& element, const std::string& why) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data XML, line {}, {}: {}", element.GetLineNum(),
                        describe(element), why);
        return nullptr;
    }

    /// At the top, elements that are not nodes belong to the configuration
    /// reader (source descriptions, overrides) and are passed over; inside
    /// a node every element must be one, so that a misspelt type is caught.
    static bool isPassedOver(const XMLElement& element, bool atTop) {
        return atTop && (kindOf(element) == NodeKind::Other || element.Attribute("uri"));
    }

    bool readChildren(const XMLElement& element, RuntimeDataObject& parent, bool atTop) {
        std::unordered_set<std::string> names;
        for (const XMLElement* child = element.FirstChildElement(); child; child = child->NextSiblingElement()) {
            if (isPassedOver(*child, atTop)) {
                continue;
            }
            NodePtr node = readNode(*child);
            if (!node) {
                return false;
            }
            if (!names.insert(node->getNameOverride()).second) {
                refuse(*child, "a second node called " + quoted(node->getNameOverride()) + " in one object");
                return false;
            }
            parent.addChild(node);
        }
        return true;
    }

    NodePtr readNode(const XMLElement& element) {
        const NodeKind kind = kindOf(element);
        if (kind == NodeKind::Other) {
            return refuse(element, "not a node; a node is integer, real, boolean, string, object or list");
        }
        const char* name = element.Attribute("name");
        if (!name) {
            return refuse(element, "a node needs a name");
        }
        if (!client::isReachableName(name)) {
            return refuse(element, "the name " + quoted(name) + " is empty or holds a '.'");
        }
        if (isValueKind(kind)) {
            return readValue(element, kind, name);
        }
        return kind == NodeKind::Object ? readObject(element, name) : readList(element, name);
    }

    NodePtr readValue(const XMLElement& element, NodeKind kind, const std::string& name) {
        if (element.FirstChildElement()) {
            return refuse(element, "a value has no elements inside");
        }
        if (hasVisibleText(element)) {
            return refuse(element, "text inside a value is not read; give it in the attribute value");
        }
        const char* text = element.Attribute("value");
        NodePtr node = makeValue(kind, name, text);
        if (!node) {
            return refuse(element, quoted(text) + " is not " + kindWord(kind));
        }
        copyProperties(element, *node, true);
        return node;
    }

    NodePtr readObject(const XMLElement& element, const std::string& name) {
        auto node = std::make_shared<RuntimeDataObject>(nullptr, name, std::string());
        copyProperties(element, *node, false);
        return readChildren(element, *node, false) ? node : nullptr;
    }

    NodePtr readList(const XMLElement& element, const std::string& name) {
        auto list = std::make_shared<RuntimeDataObjectList>(nullptr, name);
        copyProperties(element, *list, false);
        const XMLElement* templateElement = element.FirstChildElement("template");
        if (templateElement && templateElement->NextSiblingElement("template")) {
            return refuse(*templateElement->NextSiblingElement("template"), "a list has one template at most");
        }
        if (templateElement) {
            const char* templateName = templateElement->Attribute("name");
            if (templateName && !client::isReachableName(templateName)) {
                return refuse(*templateElement, "the name " + quoted(templateName) + " is empty or holds a '.'");
            }
            list->runtimeItemTemplate =
                readObject(*templateElement, templateName ? templateName : client::defaultRowName);
            if (!list->runtimeItemTemplate) {
                return nullptr;
            }
        }
        std::vector<NodePtr> rows;
        for (const XMLElement* child = element.FirstChildElement(); child; child = child->NextSiblingElement()) {
            if (child == templateElement) {
                continue;
            }
            if (std::strcmp(child->Name(), "row") != 0) {
                return refuse(*child, "a list holds one template and rows, nothing else");
            }
            NodePtr row = readRow(*child, list->runtimeItemTemplate);
            if (!row) {
                return nullptr;
            }
            rows.push_back(row);
        }
        list->assignItems(std::move(rows));
        return list;
    }

    /// A row is named after its list's template, as the rows an update adds
    /// are, and holds the template's nodes with the values the row gives.
    NodePtr readRow(const XMLElement& element, const NodePtr& rowTemplate) {
        if (element.Attribute("name")) {
            return refuse(element, "a row takes its name from the list's template");
        }
        NodePtr given = readObject(element, client::defaultRowName);
        if (!given || !rowTemplate) {
            return given;
        }
        NodePtr row = rowTemplate->clone();
        const std::string fault = fillFromRow(*row, *given, std::string());
        return fault.empty() ? row : refuse(element, fault);
    }

    /// Writes what `given` holds into `target`, a copy of the template;
    /// the text of the first misfit, or empty.
    static std::string fillFromRow(RuntimeDataObject& target, const RuntimeDataObject& given, const std::string& path) {
        for (const auto& property : given.getProperties()) {
            target.setStringProperty(property.first, property.second);
        }
        for (auto child = given.beginChildren(); child != given.endChildren(); ++child) {
            const std::string name = (*child)->getNameOverride();
            const std::string childPath = path.empty() ? name : path + "." + name;
            const NodePtr slot = target.findChild(name);
            if (!slot) {
                return "the template has no node " + quoted(childPath);
            }
            if (slot->getType() != (*child)->getType()) {
                return "the template's " + quoted(childPath) + " is of another type";
            }
            const std::string fault = fillNode(*slot, **child, childPath);
            if (!fault.empty()) {
                return fault;
            }
        }
        return std::string();
    }

    static std::string fillNode(RuntimeDataObject& slot, const RuntimeDataObject& given, const std::string& path) {
        switch (given.getType()) {
        case RuntimeDataObject::TypeObject:
            return fillFromRow(slot, given, path);
        case RuntimeDataObject::TypeList: {
            auto& list = static_cast<RuntimeDataObjectList&>(slot);
            const auto& givenList = static_cast<const RuntimeDataObjectList&>(given);
            if (givenList.runtimeItemTemplate) {
                list.runtimeItemTemplate = givenList.runtimeItemTemplate;
            }
            std::vector<NodePtr> rows;
            for (std::size_t i = 0; i < givenList.itemCount(); ++i) {
                NodePtr row = givenList.getItem(i);
                if (list.runtimeItemTemplate && !givenList.runtimeItemTemplate) {
                    // Rows read without the template they belong to.
                    row = list.runtimeItemTemplate->clone();
                    const std::string fault =
                        fillFromRow(*row, *givenList.getItem(i), path + "[" + std::to_string(i) + "]");
                    if (!fault.empty()) {
                        return fault;
                    }
                }
                rows.push_back(row);
            }
            list.assignItems(std::move(rows));
            for (const auto& property : given.getProperties()) {
                list.setStringProperty(property.first, property.second);
            }
            return std::string();
        }
        default:
            // Same type on both sides, so the text reads back exactly.
            slot.setValueFromString(given.getValueAsString());
            for (const auto& property : given.getProperties()) {
                slot.setStringProperty(property.first, property.second);
            }
            return std::string();
        }
    }
};

}  // namespace

std::shared_ptr<RuntimeDataObject> RuntimeDataBuilder::build(const tinyxml2::XMLElement* element) {
    if (!element) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data XML: no element to build from");
        return nullptr;
    }
    return TreeReader().readTop(*element);
}

}  // namespace zarvo
