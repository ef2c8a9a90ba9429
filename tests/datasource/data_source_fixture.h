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

class DataSourceFixture : public ::testing::Test {
protected:
    // Unloading frees each tree, as the engine's unload does.
    void TearDown() override {
        for (const auto& source : sources) {
            source->unloadOverride();
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
