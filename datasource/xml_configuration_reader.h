// Reads the XML configuration of a data source into a flat list of
// configurations: content sources, runtime sources and the override elements
// that patch what was read before them.
#ifndef ZARVO_DATASOURCE_XML_CONFIGURATION_READER_H
#define ZARVO_DATASOURCE_XML_CONFIGURATION_READER_H

#include "datasource/content_adapter_configuration.h"

#include <zarvo/string_view.h>

#include <boost/optional.hpp>

#include <memory>
#include <string>
#include <vector>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

namespace zarvo {

class Domain;

/// Stateless: everything a read builds lives in the vector it fills, so a
/// reader is made on the stack for one read and dropped.
///
/// Failures come in three kinds. A document that cannot be had is logged and
/// passed over. A bad number leaves as boost::bad_lexical_cast, a missing
/// mandatory attribute as std::logic_error; neither is caught here. All else
/// is read as well as it goes, without a word.
class XmlConfigurationReader {
public:
    using Configurations = std::vector<std::shared_ptr<ContentAdapterConfiguration>>;

    /// The declaration first, then the file if `fileName` is not empty, into
    /// one list: the file's sources merge over the declaration's, and the
    /// file's overrides reach both.
    Configurations loadFromFile(Domain* domain, string_view fileName, const std::string& declaration) const;

    void loadStringContents(const std::string& text, Configurations& configs) const;
    /// Opens the file by its path; `domain` plays no part.
    void loadConfigurationsFromFile(Domain* domain, string_view fileName, Configurations& configs) const;
    void loadConfigurationsFromDoc(tinyxml2::XMLDocument& document, Configurations& configs) const;

    /// A child of the root that is no override element. Without `uri` it is
    /// passed over.
    void loadSourceDescription(const tinyxml2::XMLElement* element, Configurations& configs) const;
    /// One content source; never null.
    std::shared_ptr<ContentAdapterConfiguration> loadConfiguration(const tinyxml2::XMLElement* element) const;
    /// Appends one field per child element of `element`.
    void loadFields(const tinyxml2::XMLElement* element, std::vector<ContentAdapterConfiguration::Field>& fields) const;
    /// A runtime source described by `element`; `service` is the root's
    /// `service` attribute, or empty for a source description. Runtime
    /// descriptions are not read yet: this gives nothing, so such sources are
    /// passed over.
    boost::optional<std::shared_ptr<ContentAdapterConfiguration>> loadRuntimeConfiguration(
        const tinyxml2::XMLElement* element, std::string service) const;

    /// Adds `config`, or merges it over the configuration with the same
    /// `uri`, which keeps its place.
    void appendConfig(std::shared_ptr<ContentAdapterConfiguration> config, Configurations& configs) const;
    /// The first configuration whose `uri` equals `uri` byte by byte, or null.
    std::shared_ptr<ContentAdapterConfiguration> findConfiguration(std::string uri,
                                                                   const Configurations& configs) const;

    /// Resolves "<short reference>.<field name>", split at the first "."; null
    /// if the configuration or the field is unknown.
    ContentAdapterConfiguration::Field* findTargetField(const std::string& target, Configurations& configs) const;
    void loadPreloadUrlReference(const tinyxml2::XMLElement* element, Configurations& configs) const;
    void loadDynamicSourceReference(const tinyxml2::XMLElement* element, Configurations& configs) const;
    void loadBlockSizeReference(const tinyxml2::XMLElement* element, Configurations& configs) const;
};

}  // namespace zarvo

#endif
