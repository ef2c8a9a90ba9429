#include "datasource/xml_configuration_reader.h"

#include <zarvo/log.h>

#include <tinyxml2.h>
#include <boost/lexical_cast.hpp>

#include <cstring>
#include <stdexcept>
#include <utility>

namespace zarvo {

namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using tinyxml2::XMLError;

// Override targets are written short; this makes them a configuration's uri.
const std::string URI_PREFIX_FOR_SHORT_REFERENCES = "content://com.tavelorix.content/";

const std::string contentScheme = "content://";
const std::string runtimeScheme = "servicedata://";

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// A mandatory attribute that is absent fails the whole read with this exact
// text, whichever standard library the plug-in is built with.
std::string requiredText(const char* text) {
    if (text == nullptr) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    return text;
}

std::string requiredAttribute(const XMLElement* element, const char* name) {
    return requiredText(element->Attribute(name));
}

// Sign, digits, nothing else; "-1" wraps to the largest value, and a global
// locale with digit grouping is honoured. Anything else throws
// boost::bad_lexical_cast.
std::uint64_t toUnsigned(const char* text) {
    return boost::lexical_cast<unsigned long>(text);
}

void readUnsigned(const XMLElement* element, const char* name, std::uint64_t& target) {
    const char* text = element->Attribute(name);
    if (text != nullptr) {
        target = toUnsigned(text);
    }
}

void readText(const XMLElement* element, const char* name, std::string& target) {
    const char* text = element->Attribute(name);
    if (text != nullptr) {
        target = text;
    }
}

DataObject::Type fieldType(const std::string& name) {
    if (name == "integer" || name == "int") {
        return DataObject::TypeInteger;
    }
    if (name == "real" || name == "float") {
        return DataObject::TypeReal;
    }
    // Only "bool": "boolean" has always made a string field, and existing
    // configurations depend on that.
    if (name == "bool") {
        return DataObject::TypeBoolean;
    }
    if (name == "list") {
        return DataObject::TypeList;
    }
    if (name == "enum") {
        return DataObject::TypeEnumeration;
    }
    return DataObject::TypeString;
}

bool isElementNamed(const XMLElement* element, const char* name) {
    const char* value = element->Value();
    return value != nullptr && std::strcmp(value, name) == 0;
}

}  // namespace

XmlConfigurationReader::Configurations XmlConfigurationReader::loadFromFile(Domain* domain, string_view fileName,
                                                                            const std::string& declaration) const {
    Configurations configs;
    loadStringContents(declaration, configs);
    if (!fileName.empty()) {
        loadConfigurationsFromFile(domain, fileName, configs);
    }
    return configs;
}

void XmlConfigurationReader::loadStringContents(const std::string& text, Configurations& configs) const {
    if (text.empty()) {
        return;
    }
    XMLDocument document;
    const XMLError error = document.Parse(text.c_str(), text.size());
    if (error != tinyxml2::XML_SUCCESS) {
        ZARVO_LOG_ERROR("tethrix", "ERROR, failed to load data source override configurations, error code {}",
                        static_cast<int>(error));
        return;
    }
    loadConfigurationsFromDoc(document, configs);
}

void XmlConfigurationReader::loadConfigurationsFromFile(Domain* /*domain*/, string_view fileName,
                                                        Configurations& configs) const {
    const std::string path(fileName.data(), fileName.size());
    XMLDocument document;
    const XMLError error = document.LoadFile(path.c_str());
    if (error != tinyxml2::XML_SUCCESS) {
        ZARVO_LOG_ERROR("tethrix", "ERROR, xml file {} loading failed, error code {}", path, static_cast<int>(error));
        return;
    }
    loadConfigurationsFromDoc(document, configs);
}

void XmlConfigurationReader::loadConfigurationsFromDoc(XMLDocument& document, Configurations& configs) const {
    const XMLElement* root = document.FirstChildElement();
    // A document of nothing but a declaration or comments parses well and
    // has no root; it describes nothing.
    if (root == nullptr) {
        return;
    }
    const char* service = root->Attribute("service");
    if (service != nullptr) {
        const auto runtime = loadRuntimeConfiguration(root, service);
        if (runtime) {
            appendConfig(*runtime, configs);
        }
    }
    // One pass: an override acts on what stands in `configs` at its turn.
    for (const XMLElement* child = root->FirstChildElement(); child != nullptr; child = child->NextSiblingElement()) {
        if (isElementNamed(child, "preload_url")) {
            loadPreloadUrlReference(child, configs);
        } else if (isElementNamed(child, "dynamic_source") && child->Attribute("uri") == nullptr) {
            loadDynamicSourceReference(child, configs);
        } else if (isElementNamed(child, "block_size")) {
            loadBlockSizeReference(child, configs);
        } else {
            loadSourceDescription(child, configs);
        }
    }
}

void XmlConfigurationReader::loadSourceDescription(const XMLElement* element, Configurations& configs) const {
    const char* uri = element->Attribute("uri");
    if (uri == nullptr) {
        return;
    }
    if (startsWith(uri, runtimeScheme)) {
        const auto runtime = loadRuntimeConfiguration(element, std::string());
        if (runtime) {
            appendConfig(*runtime, configs);
        }
        return;
    }
    appendConfig(loadConfiguration(element), configs);
}

std::shared_ptr<ContentAdapterConfiguration> XmlConfigurationReader::loadConfiguration(
    const XMLElement* element) const {
    auto config = std::make_shared<ContentAdapterConfiguration>();
    const char* elementName = element->Value();
    const std::string kind = elementName != nullptr ? elementName : "service";

    // Short and full form name the same source: both end up with the scheme.
    config->uri = requiredAttribute(element, "uri");
    if (!startsWith(config->uri, contentScheme)) {
        config->uri = contentScheme + config->uri;
    }

    const char* name = element->Attribute("name");
    if (name != nullptr) {
        config->name = name;
    } else {
        const std::string::size_type slash = config->uri.rfind('/');
        config->name = slash == std::string::npos ? config->uri : config->uri.substr(slash + 1);
    }
    if (kind == "dynamic_source") {
        config->dynamicSource = config->name;
    }

    // In this order, so that a bad number stops the read before later ones.
    readText(element, "filter", config->filter);
    readUnsigned(element, "limit_index", config->limitIndex);
    readUnsigned(element, "limit_count", config->limitCount);
    readText(element, "sort", config->sort);
    config->blockSize = 200;
    readUnsigned(element, "block_size", config->blockSize);

    const char* type = element->Attribute("type");
    if (type != nullptr && std::strcmp(type, "list") == 0) {
        config->type = ContentAdapterConfiguration::List;
    }

    loadFields(element, config->fields);
    return config;
}

void XmlConfigurationReader::loadFields(const XMLElement* element,
                                        std::vector<ContentAdapterConfiguration::Field>& fields) const {
    for (const XMLElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const DataObject::Type type = fieldType(requiredAttribute(child, "type"));
        const char* column = child->Attribute("column");
        const std::string columnName = requiredText(column != nullptr ? column : child->Attribute("name"));
        const std::string name = requiredAttribute(child, "name");

        ContentAdapterConfiguration::Field field(columnName, type, name);
        readText(child, "dynamic_source", field.dynamicSource);
        readText(child, "lookup_column", field.lookupColumn);
        readText(child, "preload_url", field.preloadUrl);
        fields.push_back(field);
    }
}

boost::optional<std::shared_ptr<ContentAdapterConfiguration>> XmlConfigurationReader::loadRuntimeConfiguration(
    const XMLElement* element, std::string service) const {
    const char* name = element->Attribute("name");
    const char* uri = element->Attribute("uri");
    if (name == nullptr && uri == nullptr && service.empty()) {
        return boost::none;
    }

    auto config = std::make_shared<ContentAdapterConfiguration>();
    // The top of the tree carries no data of its own.
    config->runtimeData = std::make_shared<RuntimeDataObject>(nullptr, std::string(), std::string());
    // Unlike a content source, a runtime source's name is never derived.
    config->name = name != nullptr ? name : "noname";
    if (uri != nullptr) {
        config->uri = uri;  // as it stands: no scheme is added
    }
    if (!service.empty()) {
        config->uri = runtimeScheme + service;
    }

    std::shared_ptr<RuntimeDataObject> built = RuntimeDataBuilder::build(element);
    if (!built) {
        // The source exists, gets an adapter and subscribes, with no objects.
        ZARVO_LOG_ERROR("tethrix", "Failed to create runtime data from xml.");
        return config;
    }
    if (built->beginChildren() == built->endChildren()) {
        return boost::none;  // an element that describes nothing is no source
    }
    for (auto child = built->beginChildren(); child != built->endChildren(); ++child) {
        config->runtimeData->addChild(*child);
    }
    return config;
}

void XmlConfigurationReader::appendConfig(std::shared_ptr<ContentAdapterConfiguration> config,
                                          Configurations& configs) const {
    const std::shared_ptr<ContentAdapterConfiguration> existing = findConfiguration(config->uri, configs);
    if (!existing) {
        configs.push_back(std::move(config));
        return;
    }
    ZARVO_LOG_INFO("tethrix", "Overriding configuration from XML for {}", config->uri);
    existing->fillOverrideValues(*config);
}

std::shared_ptr<ContentAdapterConfiguration> XmlConfigurationReader::findConfiguration(
    std::string uri, const Configurations& configs) const {
    for (const auto& config : configs) {
        if (config->uri == uri) {
            return config;
        }
    }
    return nullptr;
}

ContentAdapterConfiguration::Field* XmlConfigurationReader::findTargetField(const std::string& target,
                                                                            Configurations& configs) const {
    const std::string::size_type dot = target.find('.');
    if (dot == std::string::npos) {
        ZARVO_LOG_ERROR("tethrix", "Badly formatted target attribute \"{}\"", target);
        return nullptr;
    }
    const std::string uri = URI_PREFIX_FOR_SHORT_REFERENCES + target.substr(0, dot);
    const std::shared_ptr<ContentAdapterConfiguration> config = findConfiguration(uri, configs);
    if (!config) {
        ZARVO_LOG_ERROR("tethrix", "Could not find configuration for {}", uri);
        return nullptr;
    }
    return config->getField(target.substr(dot + 1));
}

void XmlConfigurationReader::loadPreloadUrlReference(const XMLElement* element, Configurations& configs) const {
    const std::string uri = requiredAttribute(element, "uri");
    const std::string target = requiredAttribute(element, "target");
    if (uri.empty() || target.empty()) {
        ZARVO_LOG_ERROR("tethrix", "Badly formatted \"preload_url\" element found in XML overrides");
        return;
    }
    ContentAdapterConfiguration::Field* field = findTargetField(target, configs);
    if (field == nullptr) {
        ZARVO_LOG_ERROR("tethrix", "Could not find target {} for preload_url", target);
        return;
    }
    ZARVO_LOG_INFO("tethrix", "Setting preload_url for {} to {}", target, uri);
    field->preloadUrl = uri;
}

void XmlConfigurationReader::loadDynamicSourceReference(const XMLElement* element, Configurations& configs) const {
    const std::string target = requiredAttribute(element, "target");
    const std::string source = requiredAttribute(element, "dynamic_source");
    const std::string lookupColumn = requiredAttribute(element, "lookup_column");
    if (target.empty() || source.empty() || lookupColumn.empty()) {
        ZARVO_LOG_ERROR("tethrix", "Badly formatted \"dynamic_source\" element found in XML overrides");
        return;
    }
    ContentAdapterConfiguration::Field* field = findTargetField(target, configs);
    if (field == nullptr) {
        ZARVO_LOG_ERROR("tethrix", "Could not find target {} for dynamic_source", target);
        return;
    }
    ZARVO_LOG_INFO("tethrix", "Set dynamic source for {} to be {} and lookup column {}", target, source, lookupColumn);
    field->dynamicSource = source;
    field->lookupColumn = lookupColumn;
}

void XmlConfigurationReader::loadBlockSizeReference(const XMLElement* element, Configurations& configs) const {
    const std::string target = requiredAttribute(element, "target");
    const char* size = element->Attribute("size");
    if (target.empty() || size == nullptr) {
        ZARVO_LOG_ERROR("tethrix", "Badly formatted \"block_size\" element found in XML overrides");
        return;
    }
    // A block size target is a whole short reference: a "." in it is kept.
    const std::shared_ptr<ContentAdapterConfiguration> config =
        findConfiguration(URI_PREFIX_FOR_SHORT_REFERENCES + target, configs);
    if (!config) {
        // Deliberately without arguments: the braces stay in the text.
        ZARVO_LOG_ERROR("tethrix", "Could not find target {} for block_size-element in XML overrides");
        return;
    }
    // Converted only now, so that a bad size with an unknown target is merely
    // logged above.
    config->blockSize = toUnsigned(size);
    ZARVO_LOG_INFO("tethrix", "Overriding block size of {} to {}", config->uri, config->blockSize);
}

}  // namespace zarvo
