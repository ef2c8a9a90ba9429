// The client's runtime data classes as the Model of the shared reader,
// update planner and state writer of protocol/ (tethrix/protocol/runtime_tree.h).
#ifndef ZARVO_CLIENT_RUNTIME_DATA_MODEL_H
#define ZARVO_CLIENT_RUNTIME_DATA_MODEL_H

#include <zarvo/runtime_data.h>

#include <memory>
#include <string>

namespace zarvo {
namespace client {

struct RuntimeDataModel {
    using Node = RuntimeDataObject;
    using List = RuntimeDataObjectList;

    static std::shared_ptr<Node> makeObject(const std::string& name) {
        return std::make_shared<RuntimeDataObject>(nullptr, name, std::string());
    }
    static std::shared_ptr<List> makeList(const std::string& name) {
        return std::make_shared<RuntimeDataObjectList>(nullptr, name);
    }
    static std::shared_ptr<Node> makeValue(const std::string& name, int value) {
        return std::make_shared<RuntimeDataObjectInteger>(nullptr, name, value);
    }
    static std::shared_ptr<Node> makeValue(const std::string& name, double value) {
        return std::make_shared<RuntimeDataObjectReal>(nullptr, name, value);
    }
    static std::shared_ptr<Node> makeValue(const std::string& name, bool value) {
        return std::make_shared<RuntimeDataObjectBoolean>(nullptr, name, value);
    }
    static std::shared_ptr<Node> makeValue(const std::string& name, std::string value) {
        return std::make_shared<RuntimeDataObjectString>(nullptr, name, std::move(value));
    }

    static List* asList(Node& node) { return dynamic_cast<List*>(&node); }
    static const List* asList(const Node& node) { return dynamic_cast<const List*>(&node); }

    /// `type` is node.getType(), which the caller has at hand.
    static bool hasClassOfType(const Node& node, int type) {
        switch (type) {
        case RuntimeDataObject::TypeInteger:
            return dynamic_cast<const RuntimeDataObjectInteger*>(&node) != nullptr;
        case RuntimeDataObject::TypeReal:
            return dynamic_cast<const RuntimeDataObjectReal*>(&node) != nullptr;
        case RuntimeDataObject::TypeBoolean:
            return dynamic_cast<const RuntimeDataObjectBoolean*>(&node) != nullptr;
        case RuntimeDataObject::TypeString:
            return dynamic_cast<const RuntimeDataObjectString*>(&node) != nullptr;
        case RuntimeDataObject::TypeList:
            return asList(node) != nullptr;
        default:
            return true;
        }
    }

    // The planner checked the class with hasClassOfType before it plans a
    // value of that kind; setValue fires the node's handlers on a change.
    static void setValue(Node& node, int value) { static_cast<RuntimeDataObjectInteger&>(node).setValue(value); }
    static void setValue(Node& node, double value) { static_cast<RuntimeDataObjectReal&>(node).setValue(value); }
    static void setValue(Node& node, bool value) { static_cast<RuntimeDataObjectBoolean&>(node).setValue(value); }
    static void setValue(Node& node, std::string value) {
        static_cast<RuntimeDataObjectString&>(node).setValue(std::move(value));
    }
};

/// The model for a state (see RuntimeStateScope): a value set fires the
/// node's handlers even if it equals the present one.
struct RuntimeStateModel : RuntimeDataModel {
    static void setValue(Node& node, int value) { setAndNotify<RuntimeDataObjectInteger>(node, value); }
    static void setValue(Node& node, double value) { setAndNotify<RuntimeDataObjectReal>(node, value); }
    static void setValue(Node& node, bool value) { setAndNotify<RuntimeDataObjectBoolean>(node, value); }
    static void setValue(Node& node, std::string value) {
        setAndNotify<RuntimeDataObjectString>(node, std::move(value));
    }

private:
    template <typename Typed, typename Value>
    static void setAndNotify(Node& node, Value value) {
        auto& typed = static_cast<Typed&>(node);
        if (typed.getValue() == value) {
            typed.notifyModified();
        } else {
            typed.setValue(std::move(value));
        }
    }
};

}  // namespace client
}  // namespace zarvo

#endif
