#include "datasource/abstract_tethrix_datasource.h"

#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"

#include <zarvo/log.h>
#include <zarvo/runtime_data.h>

#include <vector>

namespace zarvo {

namespace {

/// A runtime node and the data object that mirrors it hold each other (a
/// runtime list through its rows and its row template too); the links are
/// cut so that both can go.
void releaseRuntimeBindings(RuntimeDataObject& node) {
    node.boundDataObject.reset();
    for (auto child = node.beginChildren(); child != node.endChildren(); ++child) {
        releaseRuntimeBindings(**child);
    }
    auto* list = dynamic_cast<RuntimeDataObjectList*>(&node);
    if (list == nullptr) {
        return;
    }
    list->itemTemplateDataObject.reset();
    if (list->runtimeItemTemplate) {
        releaseRuntimeBindings(*list->runtimeItemTemplate);
    }
    for (std::size_t index = 0; index < list->itemCount(); ++index) {
        releaseRuntimeBindings(*list->getItem(index));
    }
}

}  // namespace

AbstractTethrixDataSource::AbstractTethrixDataSource(Domain* domain, string_view name)
    : DataSource(domain, name), ContentAdapterManager(Context::instance(*domain, nullptr)) {
    // The only subscription the source ever makes: start does not renew it,
    // so a source that went through stop no longer follows the connection.
    stateSubscription = getConnection()->addStateSubscription(
        [this](Connection::State state) { onConnectionStateChanged(state); });
}

AbstractTethrixDataSource::~AbstractTethrixDataSource() {
    stateSubscription.reset();
    connected.reset();
    root.reset();
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
    // The lists and their adapters, and runtime data and their mirrors, hold
    // each other; the tree is let go of them once the adapters are gone, so
    // that unloading frees the whole tree.
    std::vector<std::shared_ptr<DataObject>> trees{root};
    for (const auto& adapter : getAdapters()) {
        if (adapter->getConfig()->runtimeData) {
            releaseRuntimeBindings(*adapter->getConfig()->runtimeData);
        }
        trees.push_back(adapter->getDataObject());
        trees.push_back(adapter->getItemTemplate());
    }
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
    root.reset();
    for (const auto& tree : trees) {
        TethrixDataObjectList::releaseAdapters(tree);
    }
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
