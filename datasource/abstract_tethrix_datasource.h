// A data source whose tree follows the service connection: it owns the tree
// that UI nodes bind to and the content adapters that fill it, and starts and
// stops the adapters as the connection comes and goes. Where configurations
// come from is left to the concrete class.
#ifndef ZARVO_DATASOURCE_ABSTRACT_TETHRIX_DATASOURCE_H
#define ZARVO_DATASOURCE_ABSTRACT_TETHRIX_DATASOURCE_H

#include "datasource/content_adapter_manager.h"

#include <zarvo/connection.h>
#include <zarvo/data_source.h>

#include <memory>

namespace zarvo {

class AbstractTethrixDataSource : public DataSource, public ContentAdapterManager {
public:
    AbstractTethrixDataSource(Domain* domain, string_view name);
    ~AbstractTethrixDataSource() override;

    const Metaclass* getDynamicMetaclass() const override;
    void loadFromZVB(const ResourceLoaderThreadContext* context, ZvcInputStream* stream,
                     const ZvuBinaryFileInfo* info) override;
    void unloadOverride() override;
    /// The root of the tree; null before the first start and after stop.
    std::shared_ptr<DataObject> getData() override;
    void loadFromZVB(Domain* domain, ZvbFile& file, ReadOnlyMemoryFile& memoryFile, ZvbMemoryParser& parser) override;
    /// The concrete class creates its configurations and adapters here.
    virtual void onCreateAdapters() = 0;
    /// The concrete class drops what it holds for its adapters here.
    virtual void onReleaseAdapters() = 0;

    static const Metaclass* getStaticMetaclass();

    void start();
    void stop();
    void onConnectionStateChanged(Connection::State state);
    void setConnected(bool value);
    /// Exported for callers outside the engine.
    __attribute__((visibility("default"))) bool isConnected() const;

private:
    Connection* getConnection() const;

    std::shared_ptr<DataObject> root;
    std::shared_ptr<DataObjectBoolean> connected;
    std::shared_ptr<void> stateSubscription;
};

}  // namespace zarvo

#endif
