// A data source on a hand-driven loop, with a scripted service and the log
// captured: what every data source test starts from.
#ifndef ZARVO_TESTS_DATASOURCE_DATA_SOURCE_FIXTURE_H
#define ZARVO_TESTS_DATASOURCE_DATA_SOURCE_FIXTURE_H

#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"
#include "datasource/zarvo_tethrix_datasource.h"

#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/notification_recorder.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace zarvo {
namespace test {

/// A list and its adapter hold each other for as long as they live, by
/// design; a test that made one lets go of the pairs below `object` with this,
/// so that the leak checker sees only real leaks.
inline void releaseListPairs(const std::shared_ptr<DataObject>& object) {
    if (!object) {
        return;
    }
    if (auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(object)) {
        const TethrixDataObjectList::Cache& cache = list->getCache();
        for (const auto* rows : {&cache.getCreatedItems(), &cache.getUnreferencedItems(), &cache.getReferencedItems()}) {
            for (const auto& row : *rows) {
                releaseListPairs(row.second);
            }
        }
        const std::shared_ptr<ContentAdapter> adapter = list->getContentAdapter();
        if (adapter && adapter->getDataObject() == list) {
            adapter->initialize(nullptr, false);
        }
    }
    for (std::size_t i = 0; i < object->getChildCount(); ++i) {
        releaseListPairs(object->getChild(i));
    }
    object->removeAllChildren();
}

class DataSourceFixture : public ::testing::Test {
protected:
    void TearDown() override {
        for (const auto& source : sources) {
            releaseListPairs(source->getData());
            for (const auto& adapter : source->getAdapters()) {
                releaseListPairs(adapter->getDataObject());
                releaseListPairs(adapter->getItemTemplate());
            }
        }
        sources.clear();
    }

    std::shared_ptr<ZarvoTethrixDataSource> makeSource(const std::string& declaration,
                                                       const std::string& fileName = std::string()) {
        auto source = ZarvoTethrixDataSource::create(&host.domain(), "DataSource");
        source->setValue(ZarvoTethrixDataSource::XmlDeclarationProperty, declaration);
        source->setValue(ZarvoTethrixDataSource::XmlFilenameProperty, fileName);
        sources.push_back(source);
        return source;
    }

    /// Loads the source as the engine does once its resource file is read.
    static void load(ZarvoTethrixDataSource& source) { source.loadFromZVB(nullptr, nullptr, nullptr); }

    void setState(Connection::State state) {
        service.setState(state);
        host.runUntilIdle();
    }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    testkit::LogCapture log;

private:
    std::vector<std::shared_ptr<ZarvoTethrixDataSource>> sources;
};

}  // namespace test
}  // namespace zarvo

#endif
