#include "datasource/content_adapter_configuration.h"

#include <zarvo/log.h>

#include <utility>

namespace zarvo {

namespace {

// An empty value in an overriding record means "not given", never "clear".
void copyIfGiven(std::string& target, const std::string& value) {
    if (!value.empty()) {
        target = value;
    }
}

}  // namespace

ContentAdapterConfiguration::Field::Field(const std::string& column, DataObject::Type type, const std::string& name)
    : column(column),
      type(type),
      name(name) {}

// Swapping with fresh members leaves the source's strings empty whatever the
// standard library does with a moved-from string.
ContentAdapterConfiguration::Field::Field(Field&& other) noexcept : type(other.type) {
    column.swap(other.column);
    name.swap(other.name);
    preloadUrl.swap(other.preloadUrl);
    dynamicSource.swap(other.dynamicSource);
    lookupColumn.swap(other.lookupColumn);
}

ContentAdapterConfiguration::Field& ContentAdapterConfiguration::Field::operator=(Field&& other) noexcept {
    column.swap(other.column);
    type = other.type;
    name.swap(other.name);
    preloadUrl.swap(other.preloadUrl);
    dynamicSource.swap(other.dynamicSource);
    lookupColumn.swap(other.lookupColumn);
    return *this;
}

bool ContentAdapterConfiguration::Field::fillOverrideValues(const Field& other) {
    if (name != other.name) {
        ZARVO_LOG_ERROR("tethrix",
                        "Field {} is trying to override values from {}. Different fields can not be overridden.", name,
                        other.name);
        return false;
    }
    type = other.type;
    copyIfGiven(column, other.column);
    copyIfGiven(preloadUrl, other.preloadUrl);
    copyIfGiven(dynamicSource, other.dynamicSource);
    copyIfGiven(lookupColumn, other.lookupColumn);
    return true;
}

ContentAdapterConfiguration::ContentAdapterConfiguration()
    : singleShot(false),
      limitIndex(0),
      limitCount(0),
      blockSize(0),
      type(Single) {}

ContentAdapterConfiguration::Field* ContentAdapterConfiguration::getField(const std::string& name) {
    for (Field& field : fields) {
        if (field.name == name) {
            return &field;
        }
    }
    return nullptr;
}

bool ContentAdapterConfiguration::fillOverrideValues(ContentAdapterConfiguration& other) {
    if (uri != other.uri) {
        ZARVO_LOG_ERROR("tethrix",
                        "{} is trying to override values from {}. Different configurations can not be overridden.", uri,
                        other.uri);
        return false;
    }
    copyIfGiven(name, other.name);
    copyIfGiven(filter, other.filter);
    copyIfGiven(sort, other.sort);
    copyIfGiven(dynamicSource, other.dynamicSource);

    // Unlike the strings, these always take the overriding record's values,
    // defaults included: a later description without `block_size` resets an
    // earlier one to the reader's default.
    singleShot = other.singleShot;
    limitIndex = other.limitIndex;
    limitCount = other.limitCount;
    blockSize = other.blockSize;
    type = other.type;

    if (other.runtimeData) {
        runtimeData = other.runtimeData;
    }

    bool fieldsMerged = true;
    for (Field& field : other.fields) {
        Field* existing = getField(field.name);
        if (existing == nullptr) {
            fields.push_back(std::move(field));
            continue;
        }
        fieldsMerged = existing->fillOverrideValues(field) && fieldsMerged;
    }
    if (fieldsMerged) {
        return true;
    }
    ZARVO_LOG_ERROR("tethrix", "ContentAdapterConfiguration {} encountered error(s) while overriding fields", uri);
    return false;
}

}  // namespace zarvo
