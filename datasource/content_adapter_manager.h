// Owns a set of content adapters and takes them together through their life.
// Used at two levels: a data source manages its top-level adapters, and each
// adapter manages the child adapters it starts for dynamic sources.
#ifndef ZARVO_DATASOURCE_CONTENT_ADAPTER_MANAGER_H
#define ZARVO_DATASOURCE_CONTENT_ADAPTER_MANAGER_H

#include <zarvo/client.h>
#include <zarvo/data_object.h>

#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class ContentAdapter;
class ContentAdapterConfiguration;

class ContentAdapterManager {
public:
    explicit ContentAdapterManager(std::shared_ptr<Context> context);
    // Not virtual: objects are destroyed through their most derived type.
    ~ContentAdapterManager();
    ContentAdapterManager(const ContentAdapterManager&) = delete;
    ContentAdapterManager& operator=(const ContentAdapterManager&) = delete;

    virtual std::shared_ptr<ContentAdapter> startAdapter(std::shared_ptr<DataObject> dataObject,
                                                         std::shared_ptr<ContentAdapterConfiguration> config);
    virtual void stopAdapter(std::shared_ptr<ContentAdapter> adapter);
    virtual std::shared_ptr<ContentAdapter> createAdapter(std::shared_ptr<ContentAdapterConfiguration> config,
                                                          Domain* domain);

    void addAdapter(std::shared_ptr<ContentAdapter> adapter);
    void removeAdapter(std::shared_ptr<ContentAdapter> adapter);
    std::shared_ptr<ContentAdapter> findSource(const std::string& name);
    std::shared_ptr<ContentAdapter> findDynamicSource(const std::string& name);

    void initializeAllAdapters(std::shared_ptr<DataObject> dataObject);
    void startAllAdapters();
    void stopAllAdapters();
    void destroyAllAdapters();

    std::vector<std::shared_ptr<ContentAdapter>> getAdapters() { return adapters; }
    std::shared_ptr<Context> getContext() const { return context; }

protected:
    /// Child adapters of dynamic-source keys would otherwise gather for as
    /// long as their parent runs: one for every key of every result. Drops
    /// those whose row nobody else holds any more (the list let it go) and
    /// those whose row a newer child adapter fills. Runs in amortised
    /// constant time: only once the vector has doubled since the last pass.
    void dropIdleChildAdapters();

private:
    std::vector<std::shared_ptr<ContentAdapter>> adapters;
    std::vector<std::shared_ptr<ContentAdapter>> dynamicAdapters;
    std::shared_ptr<Context> context;
    std::size_t adaptersAfterDrop = 0;
    bool reportedIdleAdapters = false;
};

}  // namespace zarvo

#endif
