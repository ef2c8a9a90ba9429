#include "datasource/abstract_tethrix_datasource.h"

#include "datasource/tethrix_data_object_list.h"

#include <zarvo/log.h>

namespace zarvo {

AbstractTethrixDataSource::AbstractTethrixDataSource(Domain* domain, string_view name)
    : DataSource(domain, name),
      ContentAdapterManager(Context::instance(*domain, nullptr)) {
    // The only subscription the source ever makes: start does not renew it,
    // so a source that went through stop no longer follows the connection.
    stateSubscription =
        getConnection()->addStateSubscription([this](Connection::State state) { onConnectionStateChanged(state); });
}

AbstractTethrixDataSource::~AbstractTethrixDataSource() {
    stateSubscription.reset();
    connected.reset();
    std::shared_ptr<DataObject> oldRoot = std::move(root);
    root.reset();
    // Lists and their adapters hold each other; without this every reload
    // and unload would leave the old tree alive. Objects that a binding
    // still holds keep their last values.
    TethrixDataObjectList::releaseAdapters(oldRoot);
}

const Metaclass* AbstractTethrixDataSource::getStaticMetaclass() {
    static const MetaclassAbstractImpl<AbstractTethrixDataSource> metaclass(
        "AbstractTethrixDataSource", DataSource::getStaticMetaclass(), true, {}, &DataSource::makeEditorInfo);
    return &metaclass;
}

const Metaclass* AbstractTethrixDataSource::getDynamicMetaclass() const {
    return getStaticMetaclass();
}

Connection* AbstractTethrixDataSource::getConnection() const {
    return getContext()->getClient()->getConnection();
}

void AbstractTethrixDataSource::loadFromZVB(const ResourceLoaderThreadContext* context, ZvcInputStream* stream,
                                            const ZvuBinaryFileInfo* info) {
    DataSource::loadFromZVB(context, stream, info);
    start();
}

void AbstractTethrixDataSource::loadFromZVB(Domain* domain, ZvbFile& file, ReadOnlyMemoryFile& memoryFile,
                                            ZvbMemoryParser& parser) {
    DataSource::loadFromZVB(domain, file, memoryFile, parser);
    start();
}

void AbstractTethrixDataSource::unloadOverride() {
    Resource::unloadOverride();
    stop();
}

std::shared_ptr<DataObject> AbstractTethrixDataSource::getData() {
    return root;
}

void AbstractTethrixDataSource::start() {
    onCreateAdapters();
    root = std::make_shared<DataObject>(getDomain(), "Root");
    connected = std::make_shared<DataObjectBoolean>(getDomain(), "connected", false);
    root->addChild(connected);
    initializeAllAdapters(root);
    // A source loaded after the connection came up goes live at once.
    if (getConnection()->getState() == Connection::StateConnected) {
        onConnectionStateChanged(Connection::StateConnected);
    }
    // Moves every binding to the new tree.
    notifyModified();
}

void AbstractTethrixDataSource::stop() {
    onReleaseAdapters();
    destroyAllAdapters();
    getConnection()->removeStateSubscription(stateSubscription);
    stateSubscription.reset();
    // The flag falls, with its notification, before the tree goes, even
    // though the connection itself is still up.
    if (getConnection()->getState() == Connection::StateConnected) {
        onConnectionStateChanged(Connection::StateLost);
    }
    connected.reset();
    std::shared_ptr<DataObject> oldRoot = std::move(root);
    root.reset();
    // Lists and their adapters hold each other; without this every reload
    // and unload would leave the old tree alive. Objects that a binding
    // still holds keep their last values.
    TethrixDataObjectList::releaseAdapters(oldRoot);
}

void AbstractTethrixDataSource::onConnectionStateChanged(Connection::State state) {
    ZARVO_LOG_INFO("tethrix", "AbstractTethrixDataSource::onConnectionStateChanged(): State = {}", state);
    if (state == Connection::StateConnected) {
        setConnected(true);
        startAllAdapters();
    } else if (state == Connection::StateLost) {
        setConnected(false);
        stopAllAdapters();
    }
}

void AbstractTethrixDataSource::setConnected(bool value) {
    // A state delivered before the first start, or after a stop, finds no
    // tree: there is no flag to set then.
    if (!connected || connected->getValue() == value) {
        return;
    }
    connected->setValue(value);
    connected->notifyModified();
}

bool AbstractTethrixDataSource::isConnected() const {
    return connected && connected->getValue();
}

}  // namespace zarvo
