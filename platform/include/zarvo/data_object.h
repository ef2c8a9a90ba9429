// The data tree: named objects with ordered children, typed values and lists.
#ifndef ZARVO_DATA_OBJECT_H
#define ZARVO_DATA_OBJECT_H

#include <zarvo/data_context.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zarvo {

/// A node of a data tree. Always held by std::shared_ptr (made with
/// std::make_shared), since getData() hands out the node itself.
class DataObject : public DataContext, public std::enable_shared_from_this<DataObject> {
public:
    /// The numbers are part of the interface.
    enum Type : int {
        TypeObject = 0,
        TypeInteger = 1,
        TypeReal = 2,
        TypeBoolean = 3,
        TypeString = 4,
        TypeEnumeration = 5,
        TypeList = 6,
    };

    DataObject(Domain* domain, string_view name);
    ~DataObject() override;

    /// "Zarvo.DataObject": known to the engine, but made by code, never by name.
    static const Metaclass* getStaticMetaclass();
    const Metaclass* getDynamicMetaclass() const override;
    /// The object itself.
    std::shared_ptr<DataObject> getData() override;
    /// The object at `path`, a "."-separated chain of child names below this
    /// one (each step takes the first child of that name); an empty path
    /// gives the object itself, a missing step null.
    std::shared_ptr<DataObject> lookupDataContext(string_view path) override;
    virtual Type getType() const;

    std::string getName() const { return getObjectName(); }

    /// Appends `child` behind the others. An empty pointer keeps its slot:
    /// getChild() gives it back empty at that index.
    void addChild(const std::shared_ptr<DataObject>& child);
    void removeAllChildren();
    std::size_t getChildCount() const { return children.size(); }
    /// The child at `index`; empty for an empty slot or an index out of range.
    std::shared_ptr<DataObject> getChild(std::size_t index) const;
    /// The first child called `name`; empty if none.
    std::shared_ptr<DataObject> findChild(string_view name) const;

private:
    std::vector<std::shared_ptr<DataObject>> children;
};

/// A data object with one value. Reading and writing the value never
/// notifies: the writer calls notifyModified() when it sees fit.
template <typename T, DataObject::Type type>
class DataObjectTyped : public DataObject {
public:
    DataObjectTyped(Domain* domain, string_view name) : DataObject(domain, name), value() {}
    DataObjectTyped(Domain* domain, string_view name, T initial)
        : DataObject(domain, name),
          value(std::move(initial)) {}

    Type getType() const override { return type; }
    const T& getValue() const { return value; }
    void setValue(T newValue) { value = std::move(newValue); }

private:
    T value;
};

using DataObjectInteger = DataObjectTyped<int, DataObject::TypeInteger>;
using DataObjectReal = DataObjectTyped<double, DataObject::TypeReal>;
using DataObjectBoolean = DataObjectTyped<bool, DataObject::TypeBoolean>;
using DataObjectString = DataObjectTyped<std::string, DataObject::TypeString>;

/// A list of rows that the UI acquires and releases by index.
class DataObjectList : public DataObject {
public:
    DataObjectList(Domain* domain, string_view name);
    ~DataObjectList() override;

    Type getType() const override { return TypeList; }
    /// The number of rows the list claims to have.
    virtual std::size_t itemCount() = 0;
    /// The row at `index`; counts as a reference until releaseItem(index).
    virtual std::shared_ptr<DataObject> acquireItem(std::size_t index) = 0;
    virtual void releaseItem(std::size_t index) = 0;
    /// An object with the shape of a row, for use before any row exists.
    virtual std::shared_ptr<DataObject> getItemTemplate() = 0;
};

}  // namespace zarvo

#endif
