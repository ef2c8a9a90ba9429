#include <zarvo/runtime_data.h>

#include <zarvo/client/value_text.h>

#include <algorithm>

namespace zarvo {

RuntimeDataObject::RuntimeDataObject(TethrixDomain* /*domain*/, const std::string& name, std::string value)
    : name(name),
      text(std::move(value)) {}

RuntimeDataObject::~RuntimeDataObject() = default;

RuntimeDataObject::Type RuntimeDataObject::getType() const {
    return TypeObject;
}

std::string RuntimeDataObject::getNameOverride() const {
    return name;
}

std::string RuntimeDataObject::getValueAsString() const {
    return text;
}

bool RuntimeDataObject::setValueFromString(const std::string& newText) {
    if (newText == text) {
        return true;
    }
    text = newText;
    notifyModified();
    return true;
}

std::shared_ptr<RuntimeDataObject> RuntimeDataObject::clone() const {
    auto copy = std::make_shared<RuntimeDataObject>(nullptr, name, text);
    copyInto(*copy);
    return copy;
}

void RuntimeDataObject::copyInto(RuntimeDataObject& target) const {
    target.text = text;
    target.properties = properties;
    target.children.clear();
    for (const auto& child : children) {
        target.children.push_back(child->clone());
    }
}

bool RuntimeDataObject::hasProperty(const std::string& propertyName) const {
    return properties.count(propertyName) != 0;
}

std::string RuntimeDataObject::getStringProperty(const std::string& propertyName, std::string defaultValue) const {
    const auto it = properties.find(propertyName);
    return it == properties.end() ? defaultValue : it->second;
}

void RuntimeDataObject::setStringProperty(const std::string& propertyName, std::string value) {
    properties[propertyName] = std::move(value);
}

void RuntimeDataObject::addChild(const std::shared_ptr<RuntimeDataObject>& child) {
    if (child) {
        children.push_back(child);
    }
}

std::shared_ptr<RuntimeDataObject> RuntimeDataObject::findChild(const std::string& childName) const {
    for (const auto& child : children) {
        if (child->getNameOverride() == childName) {
            return child;
        }
    }
    return nullptr;
}

void RuntimeDataObject::addModifiedNotificationHandler(std::function<void(RuntimeDataObject*)> handler) {
    if (handler) {
        handlers.push_back(std::move(handler));
    }
}

void RuntimeDataObject::notifyModified() {
    // A handler may drop the last owner of this node (a binding that rebuilds
    // its tree, say): the node stays until the round is over.
    const std::shared_ptr<RuntimeDataObject> keep = weak_from_this().lock();
    // A handler may add handlers; those wait for the next change. Each runs
    // from a copy, since adding may move the vector under a running one.
    const std::size_t count = handlers.size();
    for (std::size_t i = 0; i < count; ++i) {
        const auto handler = handlers[i];
        handler(this);
    }
}

namespace {

std::string toText(int value) {
    return client::formatInteger(value);
}
std::string toText(double value) {
    return client::formatReal(value);
}
std::string toText(bool value) {
    return client::formatBoolean(value);
}
std::string toText(const std::string& value) {
    return value;
}

bool fromText(const std::string& text, int& out) {
    return client::parseInteger(text, out);
}
bool fromText(const std::string& text, double& out) {
    return client::parseReal(text, out);
}
bool fromText(const std::string& text, bool& out) {
    return client::parseBoolean(text, out);
}
bool fromText(const std::string& text, std::string& out) {
    out = text;
    return true;
}

}  // namespace

template <typename T, RuntimeDataObject::Type type>
std::string RuntimeDataObjectTyped<T, type>::getValueAsString() const {
    return toText(value);
}

template <typename T, RuntimeDataObject::Type type>
bool RuntimeDataObjectTyped<T, type>::setValueFromString(const std::string& text) {
    T parsed = T();
    if (!fromText(text, parsed)) {
        return false;
    }
    setValue(std::move(parsed));
    return true;
}

template <typename T, RuntimeDataObject::Type type>
std::shared_ptr<RuntimeDataObject> RuntimeDataObjectTyped<T, type>::clone() const {
    auto copy = std::make_shared<RuntimeDataObjectTyped>(nullptr, getNameOverride(), value);
    copyInto(*copy);
    return copy;
}

template class RuntimeDataObjectTyped<int, RuntimeDataObject::TypeInteger>;
template class RuntimeDataObjectTyped<double, RuntimeDataObject::TypeReal>;
template class RuntimeDataObjectTyped<bool, RuntimeDataObject::TypeBoolean>;
template class RuntimeDataObjectTyped<std::string, RuntimeDataObject::TypeString>;

RuntimeDataObjectList::RuntimeDataObjectList(TethrixDomain* domain, const std::string& name)
    : RuntimeDataObject(domain, name, std::string()) {}

std::shared_ptr<RuntimeDataObject> RuntimeDataObjectList::clone() const {
    auto copy = std::make_shared<RuntimeDataObjectList>(nullptr, getNameOverride());
    copyInto(*copy);
    for (const auto& row : rows) {
        copy->rows.push_back(row ? row->clone() : nullptr);
    }
    if (runtimeItemTemplate) {
        copy->runtimeItemTemplate = runtimeItemTemplate->clone();
    }
    return copy;
}

std::shared_ptr<RuntimeDataObject> RuntimeDataObjectList::getItem(std::size_t index) const {
    return index < rows.size() ? rows[index] : nullptr;
}

// Row changes outside the list are ignored without notice; an insertion
// beyond the end appends.
void RuntimeDataObjectList::insertItem(std::size_t index, std::shared_ptr<RuntimeDataObject> row) {
    rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(std::min(index, rows.size())), std::move(row));
    notifyModified();
}

void RuntimeDataObjectList::replaceItem(std::size_t index, std::shared_ptr<RuntimeDataObject> row) {
    if (index >= rows.size()) {
        return;
    }
    rows[index] = std::move(row);
    notifyModified();
}

void RuntimeDataObjectList::removeItem(std::size_t index) {
    if (index >= rows.size()) {
        return;
    }
    rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(index));
    notifyModified();
}

void RuntimeDataObjectList::assignItems(std::vector<std::shared_ptr<RuntimeDataObject>> newRows) {
    if (newRows == rows) {
        return;
    }
    rows = std::move(newRows);
    notifyModified();
}

}  // namespace zarvo
