// The data source that the engine creates by the type name
// "ZarvoTethrixDataSource". Its configuration is XML, from a file, from a
// string property, or from both; a change of the file reloads the source.
#ifndef ZARVO_DATASOURCE_ZARVO_TETHRIX_DATASOURCE_H
#define ZARVO_DATASOURCE_ZARVO_TETHRIX_DATASOURCE_H

#include "datasource/abstract_tethrix_datasource.h"
#include "datasource/file_tracker.h"

#include <zarvo/property.h>

#include <memory>
#include <string>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

namespace zarvo {

class ZarvoTethrixDataSource : public AbstractTethrixDataSource {
public:
    /// Path of the XML configuration file.
    static PropertyType<std::string> XmlFilenameProperty;
    /// The XML configuration as a string.
    static PropertyType<std::string> XmlDeclarationProperty;

    static std::shared_ptr<ZarvoTethrixDataSource> create(Domain* domain, string_view name);
    ZarvoTethrixDataSource(Domain* domain, string_view name);
    ~ZarvoTethrixDataSource() override;

    const Metaclass* getDynamicMetaclass() const override;
    void onCreateAdapters() override;
    void onReleaseAdapters() override;
    /// The tracker's callback: reloads the whole source.
    void onFileModified(string_view fileName);

    static const Metaclass* getStaticMetaclass();

    /// Renders the current data of the source called `resourceName` as an
    /// XML document, for callers outside the engine.
    __attribute__((visibility("default"))) static void takeDataSnapshot(Domain* domain, const std::string& resourceName,
                                                                        std::string& xmlFileName,
                                                                        std::string& snapshot);
    static void processSnapshotSingle(tinyxml2::XMLDocument& document, tinyxml2::XMLElement* parent,
                                      std::shared_ptr<DataObject> object);
    static void processSnapshotChilds(tinyxml2::XMLDocument& document, tinyxml2::XMLElement* parent,
                                      std::shared_ptr<DataObject> object);
    static void processSnapshotList(tinyxml2::XMLDocument& document, tinyxml2::XMLElement* parent,
                                    std::shared_ptr<DataObject> object);

private:
    std::string readStringProperty(PropertyType<std::string>& property) const;
    void startFileTracker();

    FileTracker fileTracker;
    std::string xmlFileName;
};

}  // namespace zarvo

#endif
