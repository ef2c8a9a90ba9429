// One adapter serves one configuration: it builds the configured data
// objects, sends the configuration's queries through its loader and writes
// the results into the data objects, or mirrors a tree of runtime data.
#ifndef ZARVO_DATASOURCE_CONTENT_ADAPTER_H
#define ZARVO_DATASOURCE_CONTENT_ADAPTER_H

#include "datasource/content_adapter_configuration.h"
#include "datasource/content_adapter_manager.h"

#include <zarvo/content_loader.h>
#include <zarvo/data_object.h>
#include <zarvo/runtime_data.h>

#include <boost/any.hpp>

#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class TethrixDataObjectList;

class ContentAdapter : public ContentAdapterManager,
                       public std::enable_shared_from_this<ContentAdapter>,
                       private ContentLoader::Observer {
public:
    ContentAdapter(std::shared_ptr<ContentAdapterConfiguration> config, Domain* domain,
                   std::shared_ptr<Context> context);
    virtual ~ContentAdapter();

    virtual void initialize(std::shared_ptr<DataObject> dataObject, bool createOwnObject);
    virtual void initializeRuntimeData(std::shared_ptr<DataObject> parent);
    void onContentLoaded(ContentLoader* loader, ContentResult* result) override;
    void onContentInvalidated(ContentLoader* loader) override;
    void onRuntimeDataUpdateReceived(ContentLoader* loader, const std::string& address,
                                     const std::string& data) override;
    virtual void createDataObjects(std::shared_ptr<DataObject> parent);
    virtual void onStart();
    virtual void onStop();

    void start(std::shared_ptr<ContentLoader> loader);
    void stop();
    /// Sends one query; false if there is no loader.
    bool loadItems(unsigned long index, unsigned long count);

    std::shared_ptr<ContentAdapterConfiguration> getConfig() const { return config; }
    std::shared_ptr<DataObject> getDataObject() const { return dataObject; }
    std::shared_ptr<DataObject> getItemTemplate() const { return itemTemplate; }
    void setParent(ContentAdapterManager* newParent) { parent = newParent; }

    std::shared_ptr<DataObject> createDataObjectList(const ContentAdapterConfiguration::Field& field);
    void onContentLoadedList(ContentResult* result, bool valid);
    void onContentLoadedSingle(std::shared_ptr<DataObject> dataObject, ContentResult* result);

    /// Adds a handler to every leaf below `runtimeObject` that carries its
    /// changes over to the bound data object.
    void attachModificationHandlers(std::shared_ptr<RuntimeDataObject> runtimeObject);

    /// The data object that mirrors one runtime object; null for a type
    /// without one.
    static std::shared_ptr<DataObject> createDataObject(std::shared_ptr<RuntimeDataObject> runtimeObject,
                                                        Domain* domain, std::shared_ptr<ContentAdapter> adapter);
    /// Mirrors `runtimeObject` and, for a plain object, everything below it;
    /// adds the mirror to `parent` unless that is null and binds the two.
    static std::shared_ptr<DataObject> createDataObjectRecursively(std::shared_ptr<RuntimeDataObject> runtimeObject,
                                                                   std::shared_ptr<DataObject> parent, Domain* domain,
                                                                   std::shared_ptr<ContentAdapter> adapter);

private:
    /// What a string column stores: the text, or a preload placeholder while
    /// the resource the text names is loading.
    std::string stringValueToStore(const std::shared_ptr<DataObject>& target, std::size_t column,
                                   const ContentAdapterConfiguration::Field& field, std::string text);
    /// Fills a list field from a ";"-separated list of keys, one child
    /// adapter on the dynamic source per key.
    void expandDynamicSource(const std::shared_ptr<DataObject>& target, std::size_t column,
                             const ContentAdapterConfiguration::Field& field, const std::string& text);
    /// Carries a runtime object's new value over to its bound data object.
    void onRuntimeObjectModified(RuntimeDataObject* runtimeObject);
    void expandRuntimeDynamicSource(RuntimeDataObject* runtimeObject);
    /// Rewrites the shared configuration of a dynamic source for one key and
    /// starts a child adapter on row `index` of `list`.
    void startDynamicRow(TethrixDataObjectList& list, std::size_t index, ContentAdapter& source,
                         const std::string& lookupColumn, const std::string& key);

    std::shared_ptr<ContentAdapterConfiguration> config;
    std::shared_ptr<ContentLoader> loader;
    std::vector<std::string> columns;
    std::shared_ptr<DataObject> dataObject;
    std::shared_ptr<DataObject> itemTemplate;
    Domain* domain;
    ContentAdapterManager* parent;
};

/// Stores `value` in a string object that was showing a preload placeholder.
void preloadCompleted(std::shared_ptr<DataObject> dataObject, const std::string& value);
/// The value of a typed data object; empty for other types. Exported, with
/// its setter, for callers outside the engine.
__attribute__((visibility("default"))) boost::any getDataObjectValueAsAny(std::shared_ptr<DataObject> dataObject);
/// Stores `value` in a typed data object and notifies, if it differs.
__attribute__((visibility("default"))) void setDataObjectValueFromAny(std::shared_ptr<DataObject> dataObject,
                                                                      const boost::any& value);

}  // namespace zarvo

#endif
