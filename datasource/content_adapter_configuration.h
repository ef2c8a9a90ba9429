// One configured source: a content query or a tree of runtime data.
#ifndef ZARVO_DATASOURCE_CONTENT_ADAPTER_CONFIGURATION_H
#define ZARVO_DATASOURCE_CONTENT_ADAPTER_CONFIGURATION_H

#include <zarvo/data_object.h>
#include <zarvo/runtime_data.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

/// Shared, never copied: the reader, the adapters and the dynamic-source
/// handling all hold the same object and see each other's edits.
class ContentAdapterConfiguration {
public:
    enum Type : std::int32_t { Single = 0, List = 1 };

    /// One column of a source and the data object it becomes.
    class Field {
    public:
        Field(const std::string& column, DataObject::Type type, const std::string& name);
        Field(const Field& other) = default;
        Field& operator=(const Field& other) = default;
        Field(Field&& other) noexcept;
        Field& operator=(Field&& other) noexcept;

        /// Merges `other` over this field; false, and no change, if the
        /// names differ.
        bool fillOverrideValues(const Field& other);

        std::string column;
        DataObject::Type type;
        std::string name;
        std::string preloadUrl;
        std::string dynamicSource;
        std::string lookupColumn;
    };

    ContentAdapterConfiguration();

    /// The first field called `name`, or null. Valid until `fields` grows.
    Field* getField(const std::string& name);
    /// Merges `other` over this configuration; fields new to this one are
    /// moved out of `other`. False if the URIs differ or a field failed.
    bool fillOverrideValues(ContentAdapterConfiguration& other);

    std::string uri;
    std::string name;
    std::vector<Field> fields;
    bool singleShot;
    std::string filter;
    std::uint64_t limitIndex;
    std::uint64_t limitCount;
    std::string sort;
    std::uint64_t blockSize;
    Type type;
    std::string dynamicSource;
    std::shared_ptr<RuntimeDataObject> runtimeData;
};

}  // namespace zarvo

#endif
