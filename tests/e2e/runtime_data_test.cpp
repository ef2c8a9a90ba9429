// Runtime data from end to end: tethrix-service publishes the tree of
// examples/player.xml, and a ZarvoTethrixDataSource configured by the same
// file, through the client library and its network transport, mirrors every
// published change in its data objects: values and the rows of a runtime list.
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/process.h>
#include <zarvo/testkit/running_service.h>

#include "datasource/zarvo_tethrix_datasource.h"
#include "publish_command.h"

#include <zarvo/client/network_transport.h>
#include <zarvo/data_object.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

namespace zarvo {
namespace {

using namespace zarvo::testkit;
namespace service = tethrix::service;

using DataObjectInteger = DataObjectTyped<int, DataObject::TypeInteger>;
using DataObjectBoolean = DataObjectTyped<bool, DataObject::TypeBoolean>;
using DataObjectString = DataObjectTyped<std::string, DataObject::TypeString>;

TEST(RuntimeDataEndToEndTest, PublishedValuesAndRowsReachTheDataObjects) {
    const std::string player = std::string(std::getenv("ZARVO_SOURCE_DIR")) + "/examples/player.xml";
    TemporaryDirectory directory;
    executeSql(directory.file("media.db"), "CREATE TABLE albums(id INTEGER PRIMARY KEY, title TEXT, year INTEGER);");
    TestHost host;
    LogCapture log;
    auto context = Context::instance(host.domain(), nullptr);
    service::ServiceOptions options;
    options.database = directory.file("media.db");
    options.runtimeFiles = {player};
    RunningService running(options);
    client::NetworkTransportOptions transport;
    transport.port = running.port();
    client::installTransport(*context, std::make_shared<client::NetworkTransport>(transport));

    auto source = ZarvoTethrixDataSource::create(&host.domain(), "Player");
    source->setValue(ZarvoTethrixDataSource::XmlFilenameProperty, player);
    source->loadFromZVB(nullptr, nullptr, nullptr);
    auto at = [&](const std::string& path) { return source->getData()->lookupDataContext(path); };
    auto value = [](const std::shared_ptr<DataObject>& object, const std::string& name) {
        auto child = object ? std::dynamic_pointer_cast<DataObjectString>(object->findChild(name)) : nullptr;
        return child ? child->getValue() : std::string();
    };
    auto runUntil = [&](std::function<bool()> done) { return host.loop().runUntil(done, generousWait); };
    auto publish = [&](const std::string& text) {
        const auto reply = service::postUpdate({"127.0.0.1", std::to_string(running.port()), "player", text});
        EXPECT_EQ(reply.status, 200) << reply.body;
    };
    ASSERT_TRUE(runUntil([&] { return std::dynamic_pointer_cast<DataObjectBoolean>(at("connected"))->getValue(); }));

    publish(R"({"values":{"state":"playing","volume":7,"track":{"title":"Blue Hour","duration":215.5}},)"
            R"("rows":[{"list":"queue","insert":0,"row":{"id":4,"title":"Cold Light","duration":187}}]})");
    auto queue = std::dynamic_pointer_cast<DataObjectList>(at("queue"));
    ASSERT_NE(queue, nullptr);
    ASSERT_TRUE(runUntil([&] {
        return std::dynamic_pointer_cast<DataObjectInteger>(at("volume"))->getValue() == 7 && queue->itemCount() == 1;
    }));
    EXPECT_EQ(std::dynamic_pointer_cast<DataObjectString>(at("track.title"))->getValue(), "Blue Hour");
    EXPECT_EQ(value(queue->acquireItem(0), "title"), "Cold Light");
    EXPECT_TRUE(log.messages(LogLevel::Error).empty()) << ::testing::PrintToString(log.lines());
    source->unloadOverride();  // frees the tree, as the engine's unload does
    client::installTransport(*context, nullptr);
}

}  // namespace
}  // namespace zarvo
