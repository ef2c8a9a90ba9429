// A data source on a hand-driven loop, with a scripted service, the log
// captured and a notification recorder: what every data source test starts
// from.
#ifndef ZARVO_TESTS_DATASOURCE_DATA_SOURCE_FIXTURE_H
#define ZARVO_TESTS_DATASOURCE_DATA_SOURCE_FIXTURE_H

#include "datasource/content_adapter.h"
#include "datasource/tethrix_data_object_list.h"
#include "datasource/zarvo_tethrix_datasource.h"

#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/notification_recorder.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {
namespace test {

using Columns = std::vector<ContentResult::Column>;
using Rows = std::vector<std::vector<boost::any>>;

class DataSourceFixture : public ::testing::Test {
protected:
    // Unloading frees each tree, as the engine's unload does.
    void TearDown() override {
        for (const auto& made : sources) {
            made->unloadOverride();
        }
        sources.clear();
    }

    std::shared_ptr<ZarvoTethrixDataSource> makeSource(const std::string& declaration,
                                                       const std::string& fileName = std::string()) {
        source = ZarvoTethrixDataSource::create(&host.domain(), "DataSource");
        source->setValue(ZarvoTethrixDataSource::XmlDeclarationProperty, declaration);
        source->setValue(ZarvoTethrixDataSource::XmlFilenameProperty, fileName);
        sources.push_back(source);
        return source;
    }

    /// Loads the source as the engine does once its resource file is read.
    static void load(ZarvoTethrixDataSource& loaded) { loaded.loadFromZVB(nullptr, nullptr, nullptr); }

    void setState(Connection::State state) {
        service.setState(state);
        host.runUntilIdle();
    }

    /// A source made, loaded and connected, with the log and the
    /// notifications of its tree recorded from then on.
    void start(const std::string& declaration, const std::string& fileName = std::string()) {
        load(*makeSource(declaration, fileName));
        setState(Connection::StateConnected);
        recorder.watchTree(source->getData());
        recorder.clear();
        log.clear();
    }

    /// Answers the latest query sent to `uri` and runs the loop.
    void answer(const std::string& uri, const Columns& columns, const Rows& rows, std::size_t startIndex = 0) {
        const std::vector<testkit::RecordedQuery>& queries = service.queries();
        for (auto query = queries.rbegin(); query != queries.rend(); ++query) {
            if (query->uri == uri) {
                service.reply(*query, columns, rows, startIndex);
                host.runUntilIdle();
                return;
            }
        }
        FAIL() << "no query for " << uri;
    }

    /// Sends update text on the newest subscription and runs the loop.
    void push(const std::string& update) {
        ASSERT_FALSE(service.subscriptions().empty());
        service.pushRuntimeUpdate(service.subscriptions().back(), "", update);
        host.runUntilIdle();
    }

    /// The object at `path` in the source's tree, of type T.
    template <typename T = DataObject>
    std::shared_ptr<T> at(const std::string& path) const {
        auto object = std::dynamic_pointer_cast<T>(source->getData()->lookupDataContext(path));
        if (!object) {
            throw std::runtime_error("no " + path);
        }
        return object;
    }

    static std::vector<std::string> childNames(const DataObject& object) {
        std::vector<std::string> names;
        for (std::size_t i = 0; i < object.getChildCount(); ++i) {
            names.push_back(object.getChild(i)->getName());
        }
        return names;
    }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    testkit::LogCapture log;
    testkit::NotificationRecorder recorder;
    std::shared_ptr<ZarvoTethrixDataSource> source;  ///< the newest made

private:
    std::vector<std::shared_ptr<ZarvoTethrixDataSource>> sources;
};

}  // namespace test
}  // namespace zarvo

#endif
