// Runtime data: trees of typed values that the service keeps current.
//
// The builder reads a tree's shape from XML and the internalizer applies the
// service's update text to a tree; both formats are documented in
// docs/runtime-data.md.
#ifndef ZARVO_RUNTIME_DATA_H
#define ZARVO_RUNTIME_DATA_H

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tinyxml2 {
class XMLElement;
}

namespace zarvo {

class DataObject;
class TethrixDomain;

class RuntimeDataObject : public std::enable_shared_from_this<RuntimeDataObject> {
public:
    /// The numbers of DataObject::Type.
    enum Type : int {
        TypeObject = 0,
        TypeInteger = 1,
        TypeReal = 2,
        TypeBoolean = 3,
        TypeString = 4,
        TypeList = 6,
    };
    using Children = std::vector<std::shared_ptr<RuntimeDataObject>>;

    /// A node of type 0. `value` is kept as the node's text.
    RuntimeDataObject(TethrixDomain* domain, const std::string& name, std::string value);
    virtual ~RuntimeDataObject();

    virtual Type getType() const;
    virtual std::string getNameOverride() const;
    /// The value as text.
    virtual std::string getValueAsString() const;
    /// Parses `text` into the value; false, and no change, if it does not fit.
    /// Fires the modified handlers if the value changed.
    virtual bool setValueFromString(const std::string& text);
    /// A deep copy of this node and its children, without handlers and bindings.
    virtual std::shared_ptr<RuntimeDataObject> clone() const;

    bool hasProperty(const std::string& name) const;
    std::string getStringProperty(const std::string& name, std::string defaultValue) const;
    void setStringProperty(const std::string& name, std::string value);
    const std::map<std::string, std::string>& getProperties() const { return properties; }

    void addChild(const std::shared_ptr<RuntimeDataObject>& child);
    Children::const_iterator beginChildren() const { return children.begin(); }
    Children::const_iterator endChildren() const { return children.end(); }
    std::size_t getChildCount() const { return children.size(); }
    /// The first child called `name`; null if none.
    std::shared_ptr<RuntimeDataObject> findChild(const std::string& name) const;

    /// `handler` runs whenever the node's value changes. Handlers stay for
    /// the node's life.
    void addModifiedNotificationHandler(std::function<void(RuntimeDataObject*)> handler);
    /// Library side: runs the handlers.
    void notifyModified();

    template <typename T>
    std::shared_ptr<T> castTo() {
        return std::dynamic_pointer_cast<T>(shared_from_this());
    }

    /// The data object that mirrors this node; the library leaves it to its user.
    std::shared_ptr<DataObject> boundDataObject;

protected:
    void copyInto(RuntimeDataObject& target) const;

private:
    std::string name;
    std::string text;
    std::map<std::string, std::string> properties;
    Children children;
    std::vector<std::function<void(RuntimeDataObject*)>> handlers;
};

template <typename T, RuntimeDataObject::Type type>
class RuntimeDataObjectTyped : public RuntimeDataObject {
public:
    RuntimeDataObjectTyped(TethrixDomain* domain, const std::string& name, T initial = T())
        : RuntimeDataObject(domain, name, std::string()),
          value(std::move(initial)) {}

    Type getType() const override { return type; }
    std::string getValueAsString() const override;
    bool setValueFromString(const std::string& text) override;
    std::shared_ptr<RuntimeDataObject> clone() const override;

    const T& getValue() const { return value; }
    /// Stores `newValue`; fires the handlers if it differs.
    void setValue(T newValue) {
        if (newValue == value) {
            return;
        }
        value = std::move(newValue);
        notifyModified();
    }

private:
    T value;
};

using RuntimeDataObjectInteger = RuntimeDataObjectTyped<int, RuntimeDataObject::TypeInteger>;
using RuntimeDataObjectReal = RuntimeDataObjectTyped<double, RuntimeDataObject::TypeReal>;
using RuntimeDataObjectBoolean = RuntimeDataObjectTyped<bool, RuntimeDataObject::TypeBoolean>;
using RuntimeDataObjectString = RuntimeDataObjectTyped<std::string, RuntimeDataObject::TypeString>;

class RuntimeDataObjectList : public RuntimeDataObject {
public:
    RuntimeDataObjectList(TethrixDomain* domain, const std::string& name);

    Type getType() const override { return TypeList; }
    std::shared_ptr<RuntimeDataObject> clone() const override;
    virtual std::size_t itemCount() const { return rows.size(); }
    virtual std::shared_ptr<RuntimeDataObject> getItem(std::size_t index) const;

    /// Library side: row changes; each fires the list's handlers.
    void insertItem(std::size_t index, std::shared_ptr<RuntimeDataObject> row);
    void replaceItem(std::size_t index, std::shared_ptr<RuntimeDataObject> row);
    void removeItem(std::size_t index);
    /// Library side: all rows at once. Fires the list's handlers once, and
    /// only if the rows differ (as objects) from the present ones.
    void assignItems(std::vector<std::shared_ptr<RuntimeDataObject>> newRows);

    /// Describes a row; null if the list has none.
    std::shared_ptr<RuntimeDataObject> runtimeItemTemplate;
    /// Cache of the mirror of runtimeItemTemplate, for its user.
    std::shared_ptr<DataObject> itemTemplateDataObject;

private:
    std::vector<std::shared_ptr<RuntimeDataObject>> rows;
};

class RuntimeDataBuilder {
public:
    /// A tree from `element`'s content, below a node of type 0; null if the
    /// content does not follow the grammar.
    static std::shared_ptr<RuntimeDataObject> build(const tinyxml2::XMLElement* element);
};

class RuntimeDataInternalizer {
public:
    /// Applies update text to the tree at `target`, whole or not at all.
    static void internalize(const std::string& data, std::shared_ptr<RuntimeDataObject> target);
};

}  // namespace zarvo

#endif
