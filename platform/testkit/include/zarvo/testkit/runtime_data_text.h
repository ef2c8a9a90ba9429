// A runtime data tree as one line of text, so that a test states a whole
// tree at once:
//     volume:integer=3        a value (real, boolean, string alike)
//     title:string=x{k=v}     a value with string properties
//     player(a,b)             a plain object and its children
//     queue[template t(..);r(..),r(..)]   a list, its template and rows
#ifndef ZARVO_TESTKIT_RUNTIME_DATA_TEXT_H
#define ZARVO_TESTKIT_RUNTIME_DATA_TEXT_H

#include <zarvo/runtime_data.h>

#include <tinyxml2.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace zarvo {
namespace testkit {

inline std::string dumpRuntimeData(const RuntimeDataObject& node) {
    static const char* const typeNames[] = {"", "integer", "real", "boolean", "string"};
    std::string text = node.getNameOverride();
    const int type = node.getType();
    if (type >= RuntimeDataObject::TypeInteger && type <= RuntimeDataObject::TypeString) {
        text += std::string(":") + typeNames[type] + "=" + node.getValueAsString();
    }
    if (!node.getProperties().empty()) {
        std::string properties;
        for (const auto& property : node.getProperties()) {
            properties += (properties.empty() ? "" : ",") + property.first + "=" + property.second;
        }
        text += "{" + properties + "}";
    }
    if (type == RuntimeDataObject::TypeObject) {
        std::string children;
        for (auto child = node.beginChildren(); child != node.endChildren(); ++child) {
            children += (children.empty() ? "" : ",") + dumpRuntimeData(**child);
        }
        text += "(" + children + ")";
    }
    if (const auto* list = dynamic_cast<const RuntimeDataObjectList*>(&node)) {
        std::string rows;
        if (list->runtimeItemTemplate) {
            rows = "template " + dumpRuntimeData(*list->runtimeItemTemplate) + ";";
        }
        for (std::size_t i = 0; i < list->itemCount(); ++i) {
            rows += (i == 0 ? "" : ",") + dumpRuntimeData(*list->getItem(i));
        }
        text += "[" + rows + "]";
    }
    return text;
}

/// The builder's tree for the root element of `xml`; null if the builder
/// refused it. The document must parse.
inline std::shared_ptr<RuntimeDataObject> buildRuntimeData(const std::string& xml) {
    tinyxml2::XMLDocument document;
    if (document.Parse(xml.c_str(), xml.size()) != tinyxml2::XML_SUCCESS) {
        throw std::invalid_argument("test document does not parse: " + xml);
    }
    return RuntimeDataBuilder::build(document.RootElement());
}

}  // namespace testkit
}  // namespace zarvo

#endif
