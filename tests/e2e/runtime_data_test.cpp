// Runtime data from end to end: tethrix-service publishes the tree of
// examples/player.xml, and a ZarvoTethrixDataSource configured by the same
// file, through the client library and its network transport, mirrors every
// published change in its data objects: values, the rows of a runtime list,
// and album ids that a dynamic source expands into album records; and
// zarvo-host watch showing such a change.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>


#include "datasource/content_adapter.h"
#include "datasource/content_adapter_configuration.h"
#include "datasource/tethrix_data_object_list.h"
#include "datasource/zarvo_tethrix_datasource.h"
#include "publish_command.h"

#include <zarvo/client/network_transport.h>
#include <zarvo/data_object.h>
#include <zarvo/runtime_data.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <type_traits>

namespace zarvo {

using namespace zarvo::testkit;
namespace {

namespace service = tethrix::service;

using DataObjectInteger = DataObjectTyped<int, DataObject::TypeInteger>;
using DataObjectReal = DataObjectTyped<double, DataObject::TypeReal>;
using DataObjectBoolean = DataObjectTyped<bool, DataObject::TypeBoolean>;
using DataObjectString = DataObjectTyped<std::string, DataObject::TypeString>;

std::string examplePlayer() {
    const char* source = std::getenv("ZARVO_SOURCE_DIR");
    return std::string(source ? source : ".") + "/examples/player.xml";
}

class RuntimeDataEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        executeSql(
            directory.file("media.db"),
            "CREATE TABLE albums(id INTEGER PRIMARY KEY, title TEXT, artist_id INTEGER, year INTEGER, cover TEXT);"
            "INSERT INTO albums VALUES (1, 'Northern Lights', 1, 1998, 'covers/1.png'),"
            " (2, 'Paper Tide', 2, 2004, 'covers/2.png'), (3, 'Glass Harbour', 2, 2011, 'covers/3.png');");
        context = Context::instance(host.domain(), nullptr);
    }

    void TearDown() override {
        if (source) {
            source->unloadOverride();  // frees the tree, as the engine's unload does
        }
        client::installTransport(*context, nullptr);
        running.reset();
    }

    void startService(std::vector<std::string> simulate = {}) {
        service::ServiceOptions options;
        options.database = directory.file("media.db");
        options.runtimeFiles = {examplePlayer()};
        options.simulate = std::move(simulate);
        running = std::make_unique<RunningService>(options);
        client::NetworkTransportOptions transport;
        transport.port = running->port();
        client::installTransport(*context, std::make_shared<client::NetworkTransport>(transport));
    }

    /// The data source of examples/player.xml, once it is connected.
    void startSource() {
        source = ZarvoTethrixDataSource::create(&host.domain(), "Player");
        source->setValue(ZarvoTethrixDataSource::XmlFilenameProperty, examplePlayer());
        source->loadFromZVB(nullptr, nullptr, nullptr);
        ASSERT_TRUE(runUntil([&] {
            auto connected = at<DataObjectBoolean>("connected");
            return connected && connected->getValue();
        }));
    }

    void publish(const std::string& text) {
        const auto reply = service::postUpdate({"127.0.0.1", std::to_string(running->port()), "player", text});
        ASSERT_EQ(reply.status, 200) << reply.body;
    }

    template <typename Predicate>
    bool runUntil(Predicate done) {
        return host.loop().runUntil(std::function<bool()>(done), GENEROUS_WAIT);
    }

    template <typename T = DataObject>
    std::shared_ptr<T> at(const std::string& path) const {
        return std::dynamic_pointer_cast<T>(source->getData()->lookupDataContext(path));
    }

    template <typename T>
    static auto valueOf(const std::shared_ptr<DataObject>& object, const std::string& name) {
        auto child = object ? std::dynamic_pointer_cast<T>(object->findChild(name)) : nullptr;
        return child ? child->getValue() : std::decay_t<decltype(child->getValue())>();
    }

    TemporaryDirectory directory;
    testkit::TestHost host;
    testkit::LogCapture log;
    std::shared_ptr<Context> context;
    std::unique_ptr<RunningService> running;
    std::shared_ptr<ZarvoTethrixDataSource> source;
};

TEST_F(RuntimeDataEndToEndTest, PublishedValuesAndRowsReachTheDataObjects) {
    startService();
    startSource();
    publish(R"({"values":{"state":"playing","volume":7,"track":{"title":"Blue Hour","duration":215.5}},)"
            R"("rows":[{"list":"queue","insert":0,"row":{"id":4,"title":"Cold Light","duration":187}}]})");
    auto queue = at<DataObjectList>("queue");
    ASSERT_NE(queue, nullptr);
    ASSERT_TRUE(runUntil([&] { return at<DataObjectInteger>("volume")->getValue() == 7 && queue->itemCount() == 1; }));
    EXPECT_EQ(at<DataObjectString>("state")->getValue(), "playing");
    EXPECT_EQ(at<DataObjectString>("track.title")->getValue(), "Blue Hour");
    EXPECT_EQ(at<DataObjectReal>("track.duration")->getValue(), 215.5);
    EXPECT_EQ(valueOf<DataObjectString>(queue->acquireItem(0), "title"), "Cold Light");
    EXPECT_EQ(valueOf<DataObjectReal>(queue->acquireItem(0), "duration"), 187.0);

    publish(R"({"rows":[{"list":"queue","insert":0,"row":{"id":5,"title":"Red Sky"}},{"list":"queue","remove":1}]})");
    ASSERT_TRUE(runUntil([&] { return valueOf<DataObjectString>(queue->acquireItem(0), "title") == "Red Sky"; }));
    EXPECT_EQ(queue->itemCount(), 1u);
    EXPECT_EQ(valueOf<DataObjectInteger>(queue->acquireItem(0), "id"), 5);
    EXPECT_TRUE(log.messages(LogLevel::Error).empty()) << ::testing::PrintToString(log.lines());
}

TEST_F(RuntimeDataEndToEndTest, AlbumIdsExpandIntoAlbumRecordsThroughTheDynamicSource) {
    startService();
    startSource();
    auto albums = at<TethrixDataObjectList>("recent_albums");
    ASSERT_NE(albums, nullptr);
    publish(R"({"values":{"recent_albums":"2;1"}})");
    ASSERT_TRUE(runUntil([&] {
        return albums->itemCount() == 2 && valueOf<DataObjectString>(albums->getItem(1), "title") == "Northern Lights";
    }));
    EXPECT_EQ(valueOf<DataObjectString>(albums->getItem(0), "title"), "Paper Tide");
    EXPECT_EQ(valueOf<DataObjectInteger>(albums->getItem(0), "year"), 2004);

    // A new album in front: its row is filled in place, the rest follow.
    publish(R"({"values":{"recent_albums":"3;2;1"}})");
    ASSERT_TRUE(runUntil([&] {
        return albums->itemCount() == 3 && valueOf<DataObjectString>(albums->getItem(2), "title") == "Northern Lights";
    }));
    EXPECT_EQ(valueOf<DataObjectString>(albums->getItem(0), "title"), "Glass Harbour");
    EXPECT_EQ(valueOf<DataObjectString>(albums->getItem(1), "title"), "Paper Tide");
}

}  // namespace
}  // namespace zarvo
