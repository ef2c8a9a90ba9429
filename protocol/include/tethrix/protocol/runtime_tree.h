// Runtime data trees as the client library and the service both read and
// write them: the XML grammar of a tree (runtime_tree_reader.h), the update
// text (runtime_update.h) and the full state as update text
// (runtime_state.h). docs/runtime-data.md describes the formats.
//
// The two sides keep their trees in classes of their own: the client in the
// RuntimeDataObject classes that the plug-in binds to, the service in a
// plain model without handlers. The shared code is written once, against a
// Model that names those classes:
//
//     struct Model {
//         using Node = ...;  // base class of every node
//         using List = ...;  // the class of list nodes (may be Node itself)
//         static std::shared_ptr<Node> makeObject(const std::string& name);
//         static std::shared_ptr<List> makeList(const std::string& name);
//         static std::shared_ptr<Node> makeValue(const std::string& name, int value);  // and double, bool,
//                                                                                       // std::string
//         static List* asList(Node& node);               // null unless a list
//         static const List* asList(const Node& node);
//         static bool hasClassOfType(const Node& node, int type);  // its class agrees with
//                                                                   // its type, getType()
//         static void setValue(Node& node, int value);   // and double, bool, std::string; fires
//                                                        // what a change fires on that side
//     };
//
// and a node offers the members that the client's RuntimeDataObject has:
// getType(), getNameOverride(), getValueAsString(), setValueFromString(),
// clone(), getProperties(), setStringProperty(), addChild(),
// beginChildren(), endChildren(), getChildCount(), findChild(); a list also
// itemCount(), getItem(), assignItems() and runtimeItemTemplate.
#ifndef TETHRIX_PROTOCOL_RUNTIME_TREE_H
#define TETHRIX_PROTOCOL_RUNTIME_TREE_H

#include <string>
#include <string_view>

namespace tethrix::protocol {

/// Node types as numbers: those of the host's data objects.
enum RuntimeNodeType : int {
    runtimeObject = 0,
    runtimeInteger = 1,
    runtimeReal = 2,
    runtimeBoolean = 3,
    runtimeString = 4,
    runtimeList = 6,
};

/// The name of a row that neither its XML nor its list's template names.
inline constexpr const char* defaultRowName = "row";

/// Names are joined with '.' in binding paths and update paths, so a name
/// with a '.' could never be reached; an empty one could not be told apart.
inline bool isReachableName(std::string_view name) {
    return !name.empty() && name.find('.') == std::string_view::npos;
}

/// A node's type as a number, whatever enumeration its class uses.
template <typename Node>
int typeOf(const Node& node) {
    return static_cast<int>(node.getType());
}

inline std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

}  // namespace tethrix::protocol

#endif
