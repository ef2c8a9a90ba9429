// The whole state of a Model's runtime tree (see runtime_tree.h) as update
// text: one update that sets every value and every list's rows, which,
// applied to a tree of the same shape, makes it equal to this one. It is
// what a new subscriber gets first.
#ifndef TETHRIX_PROTOCOL_RUNTIME_STATE_H
#define TETHRIX_PROTOCOL_RUNTIME_STATE_H

#include <tethrix/protocol/json_writer.h>
#include <tethrix/protocol/runtime_tree.h>

#include <string>

namespace tethrix::protocol {

/// Writes a real as update text takes it. A finite one keeps a fraction
/// ("187.0"), so that a row without template reads it back as a real; NaN
/// and the infinities, which JSON cannot spell, go as the strings "nan",
/// "inf" and "-inf".
void writeRuntimeReal(JsonWriter& writer, double value);

namespace runtime_state {

/// A value node's text as JSON of its type.
void writeValue(JsonWriter& writer, int type, const std::string& text);

template <typename Model>
void writeObject(JsonWriter& writer, const typename Model::Node& node);

template <typename Model>
void writeNode(JsonWriter& writer, const typename Model::Node& node) {
    if (typeOf(node) == runtimeObject)
        return writeObject<Model>(writer, node);
    const auto* list = typeOf(node) == runtimeList ? Model::asList(node) : nullptr;
    if (!list)
        return writeValue(writer, typeOf(node), node.getValueAsString());
    writer.beginArray();
    for (std::size_t i = 0; i < list->itemCount(); ++i) {
        if (const auto row = list->getItem(i))
            writeObject<Model>(writer, *row);
    }
    writer.endArray();
}

template <typename Model>
void writeObject(JsonWriter& writer, const typename Model::Node& node) {
    writer.beginObject();
    for (auto child = node.beginChildren(); child != node.endChildren(); ++child) {
        writer.key((*child)->getNameOverride());
        writeNode<Model>(writer, **child);
    }
    writer.endObject();
}

}  // namespace runtime_state

/// {"values": {...}} with every value and every list of the tree below
/// `root`, a node of type object.
template <typename Model>
std::string writeRuntimeState(const typename Model::Node& root) {
    JsonWriter writer;
    writer.beginObject();
    writer.key("values");
    runtime_state::writeObject<Model>(writer, root);
    writer.endObject();
    return writer.take();
}

}  // namespace tethrix::protocol

#endif
