#include "datasource/content_adapter.h"

#include "datasource/pooled_allocator.h"
#include "datasource/tethrix_data_object_list.h"
#include "datasource/tethrix_runtime_data_object_list.h"

#include <zarvo/domain.h>
#include <zarvo/log.h>
#include <zarvo/resource_manager.h>
#include <zarvo/string_utils.h>

#include <cstdint>
#include <unordered_set>

namespace zarvo {

namespace {

// Query index and count travel as 32-bit numbers; larger values are cut.
int cutTo32Bits(unsigned long value) {
    return static_cast<int>(static_cast<std::uint32_t>(value));
}

}  // namespace

ContentAdapter::ContentAdapter(std::shared_ptr<ContentAdapterConfiguration> config, Domain* domain,
                               std::shared_ptr<Context> context)
    : ContentAdapterManager(std::move(context)),
      config(std::move(config)),
      domain(domain),
      parent(nullptr) {}

ContentAdapter::~ContentAdapter() {
    stop();
}

void ContentAdapter::start(std::shared_ptr<ContentLoader> newLoader) {
    // A loader still held from an earlier start is simply let go.
    loader = std::move(newLoader);
    loader->addObserver(this);
    if (config->runtimeData) {
        if (loader) {
            loader->subscribeRuntimeData(config->uri);
        }
    } else {
        loadItems(0, 1);
    }
    onStart();
}

void ContentAdapter::stop() {
    destroyAllAdapters();
    if (loader) {
        // A list's load under way goes with the loader; the list asks again.
        if (auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(dataObject)) {
            list->notifyLoadDropped();
        }
        loader->removeObserver(this);
        loader->stop();
        std::shared_ptr<ContentLoader> last = std::move(loader);
    }
    onStop();
}

bool ContentAdapter::loadItems(unsigned long index, unsigned long count) {
    if (!loader) {
        return false;
    }
    // The filter is read at each call: a dynamic source's shared
    // configuration is rewritten just before each child adapter starts.
    const bool paged = config->blockSize != 0;
    auto query = std::make_shared<ContentQueryArguments>(config->uri, columns, config->filter,
                                                         cutTo32Bits(paged ? index : config->limitIndex),
                                                         cutTo32Bits(paged ? count : config->limitCount), config->sort);
    loader->load(query);
    return true;
}

void ContentAdapter::onContentInvalidated(ContentLoader* /*loader*/) {
    // Deliberately nothing: an invalidation neither re-queries nor clears.
}

void ContentAdapter::onStart() {}

void ContentAdapter::onStop() {}

// ---------------------------------------------------------------------------
// Building the data objects

void ContentAdapter::initialize(std::shared_ptr<DataObject> target, bool createOwnObject) {
    if (config->runtimeData) {
        initializeRuntimeData(target);
        return;
    }

    columns.clear();
    for (const auto& field : config->fields) {
        columns.push_back(field.column);
    }

    if (!createOwnObject) {
        dataObject = target;
        if (config->type == ContentAdapterConfiguration::Single) {
            createDataObjects(dataObject);
        }
        return;
    }

    switch (config->type) {
    case ContentAdapterConfiguration::Single:
        dataObject = std::make_shared<DataObject>(domain, config->name);
        createDataObjects(dataObject);
        break;
    case ContentAdapterConfiguration::List:
        dataObject =
            std::make_shared<TethrixDataObjectList>(domain, config->name, shared_from_this(), config->blockSize);
        itemTemplate = std::make_shared<DataObject>(domain, config->name + "Item");
        createDataObjects(itemTemplate);
        break;
    }
    target->addChild(dataObject);
}

void ContentAdapter::createDataObjects(std::shared_ptr<DataObject> target) {
    target->removeAllChildren();
    for (const auto& field : config->fields) {
        std::shared_ptr<DataObject> child;
        switch (field.type) {
        case DataObject::TypeInteger:
            child = makePooled<DataObjectInteger>(domain, field.name);
            break;
        case DataObject::TypeReal:
            child = makePooled<DataObjectReal>(domain, field.name);
            break;
        case DataObject::TypeBoolean:
            child = makePooled<DataObjectBoolean>(domain, field.name);
            break;
        case DataObject::TypeString:
            child = makePooled<DataObjectString>(domain, field.name);
            break;
        case DataObject::TypeList:
            child = createDataObjectList(field);
            break;
        default:
            ZARVO_LOG_ERROR("tethrix", "ContentAdapter: type {0} not supported", field.type);
            break;
        }
        // Also for an unsupported type: child i must stay column i.
        target->addChild(child);
    }
}

std::shared_ptr<DataObject> ContentAdapter::createDataObjectList(const ContentAdapterConfiguration::Field& field) {
    std::shared_ptr<ContentAdapter> listAdapter;
    if (field.dynamicSource.empty()) {
        listAdapter = shared_from_this();
    } else if (parent == nullptr) {
        // A child adapter, started for one key of a dynamic source, has no
        // manager to search: a dynamic source cannot hold a list field that
        // names another dynamic source. The list is made without an adapter.
        ZARVO_LOG_ERROR("tethrix",
                        "ContentAdapter: list field '{0}' of dynamic source '{1}' names dynamic source '{2}', which "
                        "a dynamic source cannot hold; the list stays empty",
                        field.name, config->dynamicSource, field.dynamicSource);
    } else {
        listAdapter = parent->findDynamicSource(field.dynamicSource);
        if (!listAdapter) {
            listAdapter = parent->findSource(field.dynamicSource);
        }
    }
    return std::make_shared<TethrixDataObjectList>(domain, field.name, listAdapter, config->blockSize);
}

// ---------------------------------------------------------------------------
// Applying results

void ContentAdapter::onContentLoaded(ContentLoader* /*loader*/, ContentResult* result) {
    if (config->runtimeData) {
        return;
    }

    bool valid = true;
    if (result->getColumnCount() != columns.size()) {
        ZARVO_LOG_WARNING("tethrix",
                          "WARNING, Loader::onContentLoaded, result column count doesn't match with update column "
                          "count");
        valid = false;
    }
    for (std::size_t i = 0; i < result->getColumnCount(); ++i) {
        const std::string name = result->getColumnName(i);
        // Bounds-checked on purpose: surplus columns end the operation.
        const std::string& expected = columns.at(i);
        if (name != expected) {
            ZARVO_LOG_WARNING("tethrix", "WARNING, Loader::onContentLoaded, result column {0}, {1} != {2}", i, name,
                              expected);
            valid = false;
        }
    }

    if (valid && config->type == ContentAdapterConfiguration::Single) {
        onContentLoadedSingle(dataObject, result);
    } else if (config->type == ContentAdapterConfiguration::List) {
        // Even an invalid result is passed on, so that the list hears that
        // its load has finished and does not wait for ever.
        onContentLoadedList(result, valid);
    }

    if (config->singleShot) {
        loader->stop();
    }
}

void ContentAdapter::onContentLoadedList(ContentResult* result, bool valid) {
    std::shared_ptr<TethrixDataObjectList> list = std::dynamic_pointer_cast<TethrixDataObjectList>(dataObject);
    if (valid) {
        for (std::size_t row = 0; row < result->getRowCount(); ++row) {
            result->setRowIndex(row);
            // The row's place comes from the result, in 32-bit arithmetic.
            const std::int32_t index32 = static_cast<std::int32_t>(static_cast<std::uint32_t>(result->getStartIndex()) +
                                                                   static_cast<std::uint32_t>(row));
            const std::size_t index = static_cast<std::size_t>(static_cast<std::int64_t>(index32));
            std::shared_ptr<DataObject> item = list->getItem(index);
            if (item->getChildCount() == 0) {
                createDataObjects(item);
            }
            list->notifyItemLoaded(index, item);
            onContentLoadedSingle(std::move(item), result);
        }
    }
    list->notifyLoadingFinished();
}

void ContentAdapter::onContentLoadedSingle(std::shared_ptr<DataObject> target, ContentResult* result) {
    for (std::size_t c = 0; c < result->getColumnCount() && c < config->fields.size(); ++c) {
        const ContentAdapterConfiguration::Field& field = config->fields[c];
        // The cell goes to the data object as it came, once its type is
        // checked against the column's: it already holds exactly the type
        // the conversion takes, so it is neither unboxed nor boxed again.
        const boost::any cell = result->getValueAny(c);
        boost::any converted;
        const boost::any* value = &cell;
        switch (result->getColumnType(c)) {
        case ContentDataTypeInteger:
            static_cast<void>(boost::any_cast<const int&>(cell));
            break;
        case ContentDataTypeFloat:
            static_cast<void>(boost::any_cast<const float&>(cell));
            break;
        case ContentDataTypeBool:
            static_cast<void>(boost::any_cast<const bool&>(cell));
            break;
        case ContentDataTypeString: {
            const std::string& text = boost::any_cast<const std::string&>(cell);
            if (field.type == DataObject::TypeList) {
                expandDynamicSource(target, c, field, text);
                continue;
            }
            if (!field.preloadUrl.empty()) {
                converted = stringValueToStore(target, c, field, text);
                value = &converted;
            }
            break;
        }
        default:
            ZARVO_LOG_WARNING("tethrix", "ContentAdapter::onContentLoaded, unknown value type {0} for column {1}",
                              result->getColumnType(c), result->getColumnName(c));
            continue;
        }
        if (field.type != DataObject::TypeList) {
            setDataObjectValueFromAny(target->getChild(c), *value);
        }
    }
}

std::string ContentAdapter::stringValueToStore(const std::shared_ptr<DataObject>& target, std::size_t column,
                                               const ContentAdapterConfiguration::Field& field, std::string text) {
    if (field.preloadUrl.empty()) {
        return text;
    }
    ResourceManager* resources = domain->getResourceManager();
    if (resources->acquireLoadedResource(text)) {
        return text;
    }
    // Show the placeholder until the resource is in, then the real value.
    std::unordered_set<std::string> urls{text};
    std::shared_ptr<DataObject> child = target->getChild(column);
    resources->acquireResourcesAsync(urls, [child, text]() { preloadCompleted(child, text); });
    return field.preloadUrl;
}

void ContentAdapter::expandDynamicSource(const std::shared_ptr<DataObject>& target, std::size_t column,
                                         const ContentAdapterConfiguration::Field& field, const std::string& text) {
    std::shared_ptr<TethrixDataObjectList> list =
        std::dynamic_pointer_cast<TethrixDataObjectList>(target->getChild(column));
    list->removeAllItems();
    if (field.dynamicSource.empty() || parent == nullptr) {
        return;
    }
    std::shared_ptr<ContentAdapter> source = parent->findDynamicSource(field.dynamicSource);
    if (!source) {
        ZARVO_LOG_ERROR("tethrix", "DynamicSource not found with name '{}'", field.dynamicSource);
        return;
    }
    const std::vector<std::string> keys = splitString(text, ";");
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (!keys[i].empty()) {  // an empty key leaves its row number unused
            startDynamicRow(*list, i, *source, field.lookupColumn, keys[i]);
        }
    }
    list->notifyLoadingFinished();
}

void ContentAdapter::startDynamicRow(TethrixDataObjectList& list, std::size_t index, ContentAdapter& source,
                                     const std::string& lookupColumn, const std::string& key) {
    // The dynamic source's own configuration is rewritten for each key; the
    // child adapter's first query reads it before the next key rewrites it.
    std::shared_ptr<ContentAdapterConfiguration> sourceConfig = source.getConfig();
    sourceConfig->name = "item";
    sourceConfig->type = ContentAdapterConfiguration::Single;
    sourceConfig->filter = lookupColumn + "=" + key;
    sourceConfig->singleShot = true;
    std::shared_ptr<DataObject> item = list.getItem(index);
    list.notifyItemLoaded(index, item);
    dropIdleChildAdapters();
    startAdapter(item, sourceConfig);
}

// ---------------------------------------------------------------------------
// Runtime data

void ContentAdapter::initializeRuntimeData(std::shared_ptr<DataObject> target) {
    for (auto child = config->runtimeData->beginChildren(); child != config->runtimeData->endChildren(); ++child) {
        createDataObjectRecursively(*child, target, domain, shared_from_this());
        attachModificationHandlers(*child);
    }
}

void ContentAdapter::attachModificationHandlers(std::shared_ptr<RuntimeDataObject> runtimeObject) {
    if (runtimeObject->getType() == RuntimeDataObject::TypeObject) {
        for (auto child = runtimeObject->beginChildren(); child != runtimeObject->endChildren(); ++child) {
            attachModificationHandlers(*child);
        }
        return;
    }
    // A plain pointer: only this adapter's own updates write the tree, and
    // the adapter leaves its loader before it goes.
    ContentAdapter* self = this;
    runtimeObject->addModifiedNotificationHandler(
        [self](RuntimeDataObject* changed) { self->onRuntimeObjectModified(changed); });
}

void ContentAdapter::onRuntimeDataUpdateReceived(ContentLoader* /*loader*/, const std::string& /*address*/,
                                                 const std::string& data) {
    if (config->runtimeData) {
        RuntimeDataInternalizer::internalize(data, config->runtimeData);
    }
}

namespace {

template <typename Typed, typename RuntimeTyped>
void copyRuntimeValue(RuntimeDataObject* runtimeObject) {
    std::shared_ptr<Typed> target = std::dynamic_pointer_cast<Typed>(runtimeObject->boundDataObject);
    if (!target) {
        return;
    }
    std::shared_ptr<RuntimeTyped> source = runtimeObject->castTo<RuntimeTyped>();
    if (target->getValue() == source->getValue()) {
        return;
    }
    target->setValue(source->getValue());
    target->notifyModified();
}

bool hasDynamicSourceProperties(const RuntimeDataObject& runtimeObject) {
    return runtimeObject.hasProperty("lookup_column") && runtimeObject.hasProperty("dynamic_source");
}

}  // namespace

void ContentAdapter::onRuntimeObjectModified(RuntimeDataObject* runtimeObject) {
    switch (runtimeObject->getType()) {
    case RuntimeDataObject::TypeInteger:
        copyRuntimeValue<DataObjectInteger, RuntimeDataObjectInteger>(runtimeObject);
        return;
    case RuntimeDataObject::TypeReal:
        copyRuntimeValue<DataObjectReal, RuntimeDataObjectReal>(runtimeObject);
        return;
    case RuntimeDataObject::TypeBoolean:
        copyRuntimeValue<DataObjectBoolean, RuntimeDataObjectBoolean>(runtimeObject);
        return;
    case RuntimeDataObject::TypeString:
        if (hasDynamicSourceProperties(*runtimeObject)) {
            expandRuntimeDynamicSource(runtimeObject);
        } else {
            copyRuntimeValue<DataObjectString, RuntimeDataObjectString>(runtimeObject);
        }
        return;
    case RuntimeDataObject::TypeList: {
        auto list = std::dynamic_pointer_cast<TethrixRuntimeDataObjectList>(runtimeObject->boundDataObject);
        if (list) {
            list->notifyModified();  // the list reads its rows from the runtime list itself
        }
        return;
    }
    default:
        return;
    }
}

void ContentAdapter::expandRuntimeDynamicSource(RuntimeDataObject* runtimeObject) {
    const std::string sourceName = runtimeObject->getStringProperty("dynamic_source", std::string());
    const std::string lookupColumn = runtimeObject->getStringProperty("lookup_column", std::string());
    auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(runtimeObject->boundDataObject);
    if (!list || sourceName.empty() || lookupColumn.empty()) {
        return;
    }
    std::shared_ptr<ContentAdapter> source = parent->findDynamicSource(sourceName);
    if (!source) {
        ZARVO_LOG_ERROR("tethrix", "DynamicSource not found with name '{}' (runtime)", sourceName);
        return;
    }
    // Unlike a content result, the list is not emptied first: rows of an
    // earlier, longer list stay, and rows that come up again are refilled.
    const std::string value = runtimeObject->castTo<RuntimeDataObjectString>()->getValue();
    const std::vector<std::string> keys = splitString(value, ";");
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (!keys[i].empty()) {
            startDynamicRow(*list, i, *source, lookupColumn, keys[i]);
        }
    }
    list->notifyLoadingFinished();
}

std::shared_ptr<DataObject> ContentAdapter::createDataObject(std::shared_ptr<RuntimeDataObject> runtimeObject,
                                                             Domain* domain, std::shared_ptr<ContentAdapter> adapter) {
    const RuntimeDataObject::Type type = runtimeObject->getType();
    const std::string name = runtimeObject->getNameOverride();
    switch (type) {
    case RuntimeDataObject::TypeObject:
        return std::make_shared<DataObject>(domain, name);
    case RuntimeDataObject::TypeInteger:
        return std::make_shared<DataObjectInteger>(domain, name,
                                                   runtimeObject->castTo<RuntimeDataObjectInteger>()->getValue());
    case RuntimeDataObject::TypeReal:
        return std::make_shared<DataObjectReal>(domain, name,
                                                runtimeObject->castTo<RuntimeDataObjectReal>()->getValue());
    case RuntimeDataObject::TypeBoolean:
        return std::make_shared<DataObjectBoolean>(domain, name,
                                                   runtimeObject->castTo<RuntimeDataObjectBoolean>()->getValue());
    case RuntimeDataObject::TypeString:
        if (runtimeObject->hasProperty("dynamic_source") && runtimeObject->hasProperty("lookup_column")) {
            // Rows come only from the dynamic source, so the list never pages.
            return std::make_shared<TethrixDataObjectList>(domain, name, adapter, 0);
        }
        return std::make_shared<DataObjectString>(domain, name,
                                                  runtimeObject->castTo<RuntimeDataObjectString>()->getValue());
    case RuntimeDataObject::TypeList:
        return std::make_shared<TethrixRuntimeDataObjectList>(domain, name, adapter,
                                                              runtimeObject->castTo<RuntimeDataObjectList>());
    default:
        ZARVO_LOG_ERROR("tethrix", "Unknown type {}", type);
        return nullptr;
    }
}

std::shared_ptr<DataObject> ContentAdapter::createDataObjectRecursively(
    std::shared_ptr<RuntimeDataObject> runtimeObject, std::shared_ptr<DataObject> parent, Domain* domain,
    std::shared_ptr<ContentAdapter> adapter) {
    std::shared_ptr<DataObject> object = createDataObject(runtimeObject, domain, adapter);
    if (!object) {
        return nullptr;
    }
    if (parent) {
        parent->addChild(object);
    }
    runtimeObject->boundDataObject = object;
    // Rows of a runtime list are mirrored by their list when they are wanted.
    if (runtimeObject->getType() != RuntimeDataObject::TypeObject) {
        return object;
    }
    for (auto child = runtimeObject->beginChildren(); child != runtimeObject->endChildren(); ++child) {
        createDataObjectRecursively(*child, object, domain, adapter);
    }
    return object;
}

// ---------------------------------------------------------------------------
// Value conversions

void preloadCompleted(std::shared_ptr<DataObject> dataObject, const std::string& value) {
    std::shared_ptr<DataObjectString> text = std::dynamic_pointer_cast<DataObjectString>(dataObject);
    if (!text || text->getValue() == value) {
        return;
    }
    text->setValue(value);
    text->notifyModified();
}

boost::any getDataObjectValueAsAny(std::shared_ptr<DataObject> dataObject) {
    const DataObject::Type type = dataObject->getType();
    switch (type) {
    case DataObject::TypeInteger:
        return std::static_pointer_cast<DataObjectInteger>(dataObject)->getValue();
    case DataObject::TypeReal:
        return static_cast<float>(std::static_pointer_cast<DataObjectReal>(dataObject)->getValue());
    case DataObject::TypeBoolean:
        return std::static_pointer_cast<DataObjectBoolean>(dataObject)->getValue();
    case DataObject::TypeString:
        return std::static_pointer_cast<DataObjectString>(dataObject)->getValue();
    default:
        ZARVO_LOG_ERROR("tethrix",
                        "getDataObjectValueAsAny: conversion from DataObject type {0} to boost::any not defined", type);
        return boost::any();
    }
}

namespace {

template <typename Typed, typename Stored>
void storeIfDifferent(DataObject& dataObject, const Stored& value) {
    Typed& typed = static_cast<Typed&>(dataObject);
    if (typed.getValue() == value) {
        return;
    }
    typed.setValue(value);
    typed.notifyModified();
}

}  // namespace

void setDataObjectValueFromAny(std::shared_ptr<DataObject> dataObject, const boost::any& value) {
    if (!dataObject) {
        return;  // the empty slot of a field whose type has no data object
    }
    const DataObject::Type type = dataObject->getType();
    switch (type) {
    case DataObject::TypeInteger:
        storeIfDifferent<DataObjectInteger>(*dataObject, boost::any_cast<int>(value));
        return;
    case DataObject::TypeReal:
        storeIfDifferent<DataObjectReal>(*dataObject, static_cast<double>(boost::any_cast<float>(value)));
        return;
    case DataObject::TypeBoolean:
        storeIfDifferent<DataObjectBoolean>(*dataObject, boost::any_cast<bool>(value));
        return;
    case DataObject::TypeString:
        storeIfDifferent<DataObjectString>(*dataObject, boost::any_cast<const std::string&>(value));
        return;
    default:
        ZARVO_LOG_ERROR("tethrix",
                        "setDataObjectValueFromAny: conversion from DataObject type {0} to boost::any not defined",
                        type);
        return;
    }
}

}  // namespace zarvo
