#include "datasource/zarvo_tethrix_datasource.h"

#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"
#include "datasource/xml_configuration_reader.h"

#include <zarvo/domain.h>
#include <zarvo/log.h>
#include <zarvo/resource_manager.h>

#include <tinyxml2.h>
#include <boost/lexical_cast.hpp>

namespace zarvo {

namespace {

// Attribute names of the snapshot document.
const std::string XMLAttributeName = "name";
const std::string XMLAttributeType = "type";
const std::string XMLAttributeStatus = "status";

}  // namespace

PropertyType<std::string> ZarvoTethrixDataSource::XmlFilenameProperty("ZarvoTethrixDataSource.XmlFileName",
                                                                      std::string(), 0, false, nullptr);
PropertyType<std::string> ZarvoTethrixDataSource::XmlDeclarationProperty("ZarvoTethrixDataSource.XmlDeclaration",
                                                                         std::string(), 0, false, nullptr);

std::shared_ptr<ZarvoTethrixDataSource> ZarvoTethrixDataSource::create(Domain* domain, string_view name) {
    return std::shared_ptr<ZarvoTethrixDataSource>(new ZarvoTethrixDataSource(domain, name));
}

ZarvoTethrixDataSource::ZarvoTethrixDataSource(Domain* domain, string_view name)
    : AbstractTethrixDataSource(domain, name),
      fileTracker(domain->getMessageDispatcher()) {}

ZarvoTethrixDataSource::~ZarvoTethrixDataSource() = default;

const Metaclass* ZarvoTethrixDataSource::getStaticMetaclass() {
    // The base named here is DataSource, not AbstractTethrixDataSource: the
    // intermediate class has nothing for the engine to know.
    static const MetaclassImpl<ZarvoTethrixDataSource> metaclass(
        "ZarvoTethrixDataSource", DataSource::getStaticMetaclass(), false,
        {&XmlFilenameProperty, &XmlDeclarationProperty}, &DataSource::makeEditorInfo);
    return &metaclass;
}

const Metaclass* ZarvoTethrixDataSource::getDynamicMetaclass() const {
    return getStaticMetaclass();
}

std::string ZarvoTethrixDataSource::readStringProperty(PropertyType<std::string>& property) const {
    const void* value = getFinalValueSource(property.getDescriptor());
    if (value == nullptr) {
        return property.getDescriptor().getDefaultValue();
    }
    return *static_cast<const std::string*>(value);
}

void ZarvoTethrixDataSource::onCreateAdapters() {
    xmlFileName = readStringProperty(XmlFilenameProperty);
    const std::string declaration = readStringProperty(XmlDeclarationProperty);
    if (xmlFileName.empty() && declaration.empty()) {
        return;
    }

    XmlConfigurationReader reader;
    std::vector<std::shared_ptr<ContentAdapterConfiguration>> configurations;
    try {
        configurations = reader.loadFromFile(getDomain(), xmlFileName, declaration);
    } catch (const std::exception& error) {
        // A bad number or a missing attribute leaves this operation, and the
        // load or reload with it, as it always has. The file is watched all
        // the same, so that repairing it reloads the source.
        ZARVO_LOG_ERROR("tethrix",
                        "ZarvoTethrixDataSource: configuration file '{}' could not be read ({}); it is watched for "
                        "a repair",
                        xmlFileName, error.what());
        startFileTracker();
        throw;
    }
    for (const auto& configuration : configurations) {
        addAdapter(createAdapter(configuration, getDomain()));
    }
    // Also with no configurations: a file that could not be read is watched,
    // so that repairing it reloads the source.
    startFileTracker();
}

void ZarvoTethrixDataSource::startFileTracker() {
    fileTracker.start(xmlFileName, [this](string_view changed) { onFileModified(changed); });
}

void ZarvoTethrixDataSource::onReleaseAdapters() {
    xmlFileName.clear();
    fileTracker.stop();
}

void ZarvoTethrixDataSource::onFileModified(string_view /*fileName*/) {
    stop();
    start();
}

// ---------------------------------------------------------------------------
// Snapshot

/// The value of a typed data object as text; empty for a null pointer or an
/// object of another class.
template <typename Typed>
std::string stringifyValue(std::shared_ptr<DataObject> object) {
    std::shared_ptr<Typed> typed = std::dynamic_pointer_cast<Typed>(object);
    if (!typed) {
        return std::string();
    }
    return boost::lexical_cast<std::string>(typed->getValue());
}

template std::string stringifyValue<DataObjectInteger>(std::shared_ptr<DataObject>);
template std::string stringifyValue<DataObjectReal>(std::shared_ptr<DataObject>);
template std::string stringifyValue<DataObjectBoolean>(std::shared_ptr<DataObject>);
template std::string stringifyValue<DataObjectString>(std::shared_ptr<DataObject>);

void ZarvoTethrixDataSource::takeDataSnapshot(Domain* domain, const std::string& resourceName, std::string& xmlFileName,
                                              std::string& snapshot) {
    if (domain == nullptr) {
        return;
    }
    tinyxml2::XMLDocument document;
    tinyxml2::XMLElement* root = document.NewElement("root");
    document.InsertFirstChild(root);

    std::shared_ptr<Resource> resource = domain->getResourceManager()->tryAcquireResource(resourceName);
    std::shared_ptr<ZarvoTethrixDataSource> source = std::dynamic_pointer_cast<ZarvoTethrixDataSource>(resource);
    if (!resource) {
        root->SetAttribute(XMLAttributeStatus.c_str(), ("ERROR: No such resource: \"" + resourceName + "\"").c_str());
    } else if (!source) {
        root->SetAttribute(XMLAttributeStatus.c_str(),
                           ("ERROR: Resource \"" + resourceName + "\" was not ZarvoTethrix datasource.").c_str());
    } else {
        xmlFileName = source->xmlFileName;
        for (const auto& adapter : source->getAdapters()) {
            tinyxml2::XMLElement* element = document.NewElement("source");
            element->SetAttribute("uri", adapter->getConfig()->uri.c_str());
            element->SetAttribute("name", adapter->getConfig()->name.c_str());
            std::shared_ptr<DataObject> dataObject = adapter->getDataObject();
            if (dataObject) {
                const DataObject::Type type = dataObject->getType();
                if (type == DataObject::TypeObject) {
                    processSnapshotChilds(document, element, dataObject);
                } else if (type == DataObject::TypeList) {
                    processSnapshotList(document, element, dataObject);
                } else {
                    ZARVO_LOG_INFO("tethrix", "Unhandled type {}. Will be skipped.", type);
                }
            }
            root->InsertEndChild(element);
        }
        root->SetAttribute(XMLAttributeStatus.c_str(), "OK");
    }

    // Also on the error paths: the caller always gets a document to show.
    tinyxml2::XMLPrinter printer(nullptr, false, 0);
    document.Print(&printer);
    snapshot = printer.CStr();
}

void ZarvoTethrixDataSource::processSnapshotSingle(tinyxml2::XMLDocument& document, tinyxml2::XMLElement* parent,
                                                   std::shared_ptr<DataObject> object) {
    const std::string name = object->getName();
    std::shared_ptr<DataObject> data = object->getData();
    tinyxml2::XMLElement* field = document.NewElement("field");
    field->SetAttribute(XMLAttributeName.c_str(), name.c_str());

    std::string text;
    const DataObject::Type type = data->getType();
    switch (type) {
    case DataObject::TypeObject:
        processSnapshotChilds(document, field, data);
        field->SetAttribute(XMLAttributeType.c_str(), "object");
        break;
    case DataObject::TypeList:
        processSnapshotList(document, field, data);
        field->SetAttribute(XMLAttributeType.c_str(), "list");
        break;
    case DataObject::TypeInteger:
        field->SetAttribute(XMLAttributeType.c_str(), "integer");
        text = stringifyValue<DataObjectInteger>(data);
        break;
    case DataObject::TypeReal:
        field->SetAttribute(XMLAttributeType.c_str(), "float");
        text = stringifyValue<DataObjectReal>(data);
        break;
    case DataObject::TypeBoolean:
        field->SetAttribute(XMLAttributeType.c_str(), "boolean");
        text = stringifyValue<DataObjectBoolean>(data);
        break;
    case DataObject::TypeString:
        field->SetAttribute(XMLAttributeType.c_str(), "string");
        text = stringifyValue<DataObjectString>(data);
        break;
    default:
        ZARVO_LOG_INFO("tethrix", "Unhandled type: {}. Skippped.", type);
        break;
    }
    if (!text.empty()) {
        field->SetText(text.c_str());
    }
    parent->InsertEndChild(field);
}

void ZarvoTethrixDataSource::processSnapshotChilds(tinyxml2::XMLDocument& document, tinyxml2::XMLElement* parent,
                                                   std::shared_ptr<DataObject> object) {
    const std::size_t count = object->getChildCount();
    for (std::size_t index = 0; index < count; ++index) {
        std::shared_ptr<DataObject> child = object->getChild(index);
        if (child) {  // the empty slot of a field type without a data object
            processSnapshotSingle(document, parent, child);
        }
    }
}

void ZarvoTethrixDataSource::processSnapshotList(tinyxml2::XMLDocument& document, tinyxml2::XMLElement* parent,
                                                 std::shared_ptr<DataObject> object) {
    std::shared_ptr<TethrixDataObjectList> list = std::dynamic_pointer_cast<TethrixDataObjectList>(object);
    if (!list) {
        return;  // a runtime list shows as an empty "list" field
    }
    // Rows are acquired and never released: a snapshot holds a reference to
    // every row for as long as the list lives.
    for (std::size_t index = 0; index < list->itemCount(); ++index) {
        processSnapshotSingle(document, parent, list->acquireItem(index));
    }
}

}  // namespace zarvo
