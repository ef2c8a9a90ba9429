// Reads the XML of a runtime data tree into a Model's nodes (see
// runtime_tree.h). The grammar is in docs/runtime-data.md; a document that
// breaks it gives no tree and one fault that names the line and element.
#ifndef TETHRIX_PROTOCOL_RUNTIME_TREE_READER_H
#define TETHRIX_PROTOCOL_RUNTIME_TREE_READER_H

#include <tethrix/protocol/json_writer.h>
#include <tethrix/protocol/runtime_tree.h>
#include <tethrix/protocol/value_text.h>

#include <tinyxml2.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace tethrix::protocol {

/// Where a runtime tree's XML breaks the grammar.
struct RuntimeXmlFault {
    int line = 0;
    std::string element;  ///< e.g. <integer name="volume">
    std::string reason;

    /// "line 4, <integer name="volume">: "loud" is not an integer"
    std::string message() const;
};

namespace runtime_xml {

/// The node type an element's name stands for; none for any other name.
std::optional<RuntimeNodeType> kindOf(const tinyxml2::XMLElement& element);
/// `<integer name="volume">`, to point at the element in a message.
std::string describe(const tinyxml2::XMLElement& element);
bool hasVisibleText(const tinyxml2::XMLElement& element);
/// "an integer", "a real", ... for a value type.
const char* kindWord(RuntimeNodeType type);

inline bool isValueKind(RuntimeNodeType type) {
    return type == runtimeInteger || type == runtimeReal || type == runtimeBoolean || type == runtimeString;
}

}  // namespace runtime_xml

template <typename Model>
class RuntimeTreeReader {
public:
    using Node = typename Model::Node;
    using NodePtr = std::shared_ptr<Node>;

    /// The nodes described in `element`'s content, below a node of type
    /// object; null at the first fault, which fault() then tells.
    NodePtr read(const tinyxml2::XMLElement& element) {
        auto root = Model::makeObject(std::string());
        return readChildren(element, *root, true) ? root : nullptr;
    }

    const RuntimeXmlFault& fault() const { return firstFault; }

private:
    std::nullptr_t refuse(const tinyxml2::XMLElement& element, const std::string& why) {
        firstFault = RuntimeXmlFault{element.GetLineNum(), runtime_xml::describe(element), why};
        return nullptr;
    }

    /// At the top, elements that are not nodes belong to the configuration
    /// reader (source descriptions, overrides) and are passed over; inside
    /// a node every element must be one, so that a misspelt type is caught.
    static bool isPassedOver(const tinyxml2::XMLElement& element, bool atTop) {
        return atTop && (!runtime_xml::kindOf(element) || element.Attribute("uri"));
    }

    /// Every attribute but the ones the grammar itself reads is a property.
    static void copyProperties(const tinyxml2::XMLElement& element, Node& node, bool isValue) {
        for (auto* attribute = element.FirstAttribute(); attribute; attribute = attribute->Next()) {
            const char* name = attribute->Name();
            if (std::strcmp(name, "name") == 0 || (isValue && std::strcmp(name, "value") == 0))
                continue;
            node.setStringProperty(name, attribute->Value());
        }
    }

    bool readChildren(const tinyxml2::XMLElement& element, Node& parent, bool atTop) {
        std::unordered_set<std::string> names;
        for (auto* child = element.FirstChildElement(); child; child = child->NextSiblingElement()) {
            if (isPassedOver(*child, atTop))
                continue;
            NodePtr node = readNode(*child);
            if (!node)
                return false;
            if (!names.insert(node->getNameOverride()).second) {
                refuse(*child, "a second node called " + quoted(node->getNameOverride()) + " in one object");
                return false;
            }
            parent.addChild(node);
        }
        return true;
    }

    NodePtr readNode(const tinyxml2::XMLElement& element) {
        const auto kind = runtime_xml::kindOf(element);
        if (!kind)
            return refuse(element, "not a node; a node is integer, real, boolean, string, object or list");
        const char* name = element.Attribute("name");
        if (!name)
            return refuse(element, "a node needs a name");
        if (!isReachableName(name))
            return refuse(element, "the name " + quoted(name) + " is empty or holds a '.'");
        // Names and text travel as JSON: what is not UTF-8 could not be named
        // by an update, nor come back from a state as it was.
        if (!isValidUtf8(name))
            return refuse(element, "the name is not valid UTF-8");
        if (runtime_xml::isValueKind(*kind))
            return readValue(element, *kind, name);
        return *kind == runtimeObject ? readObject(element, name) : readList(element, name);
    }

    NodePtr readValue(const tinyxml2::XMLElement& element, RuntimeNodeType kind, const std::string& name) {
        if (element.FirstChildElement())
            return refuse(element, "a value has no elements inside");
        if (runtime_xml::hasVisibleText(element)) {
            return refuse(element, "text inside a value is not read; give it in the attribute value");
        }
        const char* text = element.Attribute("value");
        if (text && !isValidUtf8(text))
            return refuse(element, "the value is not valid UTF-8");
        NodePtr node = makeValue(kind, name, text);
        if (!node)
            return refuse(element, quoted(text) + " is not " + runtime_xml::kindWord(kind));
        copyProperties(element, *node, true);
        return node;
    }

    /// A value node of `kind` holding `text`, or its zero value without
    /// text; null if the text does not read as that kind.
    static NodePtr makeValue(RuntimeNodeType kind, const std::string& name, const char* text) {
        switch (kind) {
        case runtimeInteger: {
            int value = 0;
            if (text && !parseInteger(text, value))
                return nullptr;
            return Model::makeValue(name, value);
        }
        case runtimeReal: {
            double value = 0.0;
            if (text && !parseReal(text, value))
                return nullptr;
            return Model::makeValue(name, value);
        }
        case runtimeBoolean: {
            bool value = false;
            if (text && !parseBoolean(text, value))
                return nullptr;
            return Model::makeValue(name, value);
        }
        default:
            return Model::makeValue(name, std::string(text ? text : ""));
        }
    }

    NodePtr readObject(const tinyxml2::XMLElement& element, const std::string& name) {
        NodePtr node = Model::makeObject(name);
        copyProperties(element, *node, false);
        return readChildren(element, *node, false) ? node : nullptr;
    }

    NodePtr readList(const tinyxml2::XMLElement& element, const std::string& name) {
        auto list = Model::makeList(name);
        copyProperties(element, *list, false);
        const tinyxml2::XMLElement* templateElement = element.FirstChildElement("template");
        if (templateElement && templateElement->NextSiblingElement("template")) {
            return refuse(*templateElement->NextSiblingElement("template"), "a list has one template at most");
        }
        if (templateElement) {
            const char* templateName = templateElement->Attribute("name");
            if (templateName && (!isReachableName(templateName) || !isValidUtf8(templateName))) {
                return refuse(*templateElement,
                              "the name " + quoted(templateName) + " is empty, holds a '.' or is not valid UTF-8");
            }
            list->runtimeItemTemplate = readObject(*templateElement, templateName ? templateName : defaultRowName);
            if (!list->runtimeItemTemplate)
                return nullptr;
        }
        std::vector<NodePtr> rows;
        for (auto* child = element.FirstChildElement(); child; child = child->NextSiblingElement()) {
            if (child == templateElement)
                continue;
            if (std::strcmp(child->Name(), "row") != 0) {
                return refuse(*child, "a list holds one template and rows, nothing else");
            }
            NodePtr row = readRow(*child, list->runtimeItemTemplate);
            if (!row)
                return nullptr;
            rows.push_back(row);
        }
        list->assignItems(std::move(rows));
        return list;
    }

    /// A row is named after its list's template, as the rows an update adds
    /// are, and holds the template's nodes with the values the row gives.
    NodePtr readRow(const tinyxml2::XMLElement& element, const NodePtr& rowTemplate) {
        if (element.Attribute("name"))
            return refuse(element, "a row takes its name from the list's template");
        NodePtr given = readObject(element, defaultRowName);
        if (!given || !rowTemplate)
            return given;
        NodePtr row = rowTemplate->clone();
        const std::string fault = fillFromRow(*row, *given, std::string());
        return fault.empty() ? row : refuse(element, fault);
    }

    /// Writes what `given` holds into `target`, a copy of the template; the
    /// text of the first misfit, or empty.
    static std::string fillFromRow(Node& target, const Node& given, const std::string& path) {
        for (const auto& property : given.getProperties())
            target.setStringProperty(property.first, property.second);
        for (auto child = given.beginChildren(); child != given.endChildren(); ++child) {
            const std::string name = (*child)->getNameOverride();
            const std::string childPath = path.empty() ? name : path + "." + name;
            const NodePtr slot = target.findChild(name);
            if (!slot)
                return "the template has no node " + quoted(childPath);
            if (typeOf(*slot) != typeOf(**child))
                return "the template's " + quoted(childPath) + " is of another type";
            std::string fault = fillNode(*slot, **child, childPath);
            if (!fault.empty())
                return fault;
        }
        return std::string();
    }

    static std::string fillNode(Node& slot, const Node& given, const std::string& path) {
        if (typeOf(given) == runtimeObject)
            return fillFromRow(slot, given, path);
        if (typeOf(given) == runtimeList)
            return fillList(*Model::asList(slot), *Model::asList(given), path);
        // Same type on both sides, so the text reads back exactly.
        slot.setValueFromString(given.getValueAsString());
        for (const auto& property : given.getProperties())
            slot.setStringProperty(property.first, property.second);
        return std::string();
    }

    template <typename List>
    static std::string fillList(List& list, const List& given, const std::string& path) {
        if (given.runtimeItemTemplate)
            list.runtimeItemTemplate = given.runtimeItemTemplate;
        std::vector<NodePtr> rows;
        for (std::size_t i = 0; i < given.itemCount(); ++i) {
            NodePtr row = given.getItem(i);
            if (list.runtimeItemTemplate && !given.runtimeItemTemplate) {
                // Rows read without the template they belong to.
                row = list.runtimeItemTemplate->clone();
                std::string fault = fillFromRow(*row, *given.getItem(i), path + "[" + std::to_string(i) + "]");
                if (!fault.empty())
                    return fault;
            }
            rows.push_back(row);
        }
        list.assignItems(std::move(rows));
        for (const auto& property : given.getProperties())
            list.setStringProperty(property.first, property.second);
        return std::string();
    }

    RuntimeXmlFault firstFault;
};

}  // namespace tethrix::protocol

#endif
