// Runtime sources started through the real adapters, client library and a
// scripted service, with the loop run by hand: what the runtime binding and
// runtime list tests start from.
#ifndef ZARVO_TESTS_DATASOURCE_RUNTIME_SOURCE_FIXTURE_H
#define ZARVO_TESTS_DATASOURCE_RUNTIME_SOURCE_FIXTURE_H

#include "datasource/content_adapter.h"
#include "datasource/content_adapter_configuration.h"
#include "datasource/content_adapter_manager.h"

#include <zarvo/runtime_data.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/notification_recorder.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <memory>
#include <string>
#include <vector>

namespace zarvo {
namespace test {

class RuntimeSourceFixture : public ::testing::Test {
protected:
    void TearDown() override {
        manager.destroyAllAdapters();
        // A runtime list and its data object hold each other through
        // boundDataObject; the test breaks that ring so that nothing leaks.
        for (const auto& config : configs) {
            if (config->runtimeData) {
                unbind(*config->runtimeData);
            }
        }
    }

    /// A runtime source as the configuration reader makes it: the nodes that
    /// the builder reads from `xml` below a root of their own.
    std::shared_ptr<ContentAdapterConfiguration> runtimeSource(const std::string& xml,
                                                               const std::string& uri = "servicedata://player") {
        tinyxml2::XMLDocument document;
        EXPECT_EQ(document.Parse(xml.c_str(), xml.size()), tinyxml2::XML_SUCCESS) << xml;
        const std::shared_ptr<RuntimeDataObject> built = RuntimeDataBuilder::build(document.RootElement());
        EXPECT_NE(built, nullptr) << xml;
        auto config = std::make_shared<ContentAdapterConfiguration>();
        config->uri = uri;
        config->name = "playerSource";
        config->blockSize = 0;
        config->runtimeData = std::make_shared<RuntimeDataObject>(nullptr, "", "");
        if (!built) {
            return config;
        }
        for (auto child = built->beginChildren(); child != built->endChildren(); ++child) {
            config->runtimeData->addChild(*child);
        }
        return config;
    }

    /// A dynamic source named `name` on the table `table`, with string
    /// fields named after their columns.
    static std::shared_ptr<ContentAdapterConfiguration> dynamicSource(const std::string& name, const std::string& table,
                                                                      const std::vector<std::string>& columns) {
        auto config = std::make_shared<ContentAdapterConfiguration>();
        config->uri = "content://com.tavelorix.content/" + table;
        config->name = name;
        config->dynamicSource = name;
        for (const auto& column : columns) {
            config->fields.emplace_back(column, DataObject::TypeString, column);
        }
        return config;
    }

    /// Adds an adapter per configuration, builds the tree under "Root" and
    /// starts the adapters on a connection that is up.
    void start(const std::vector<std::shared_ptr<ContentAdapterConfiguration>>& sources) {
        configs = sources;
        for (const auto& config : configs) {
            manager.addAdapter(manager.createAdapter(config, &host.domain()));
        }
        root = std::make_shared<DataObject>(&host.domain(), "Root");
        manager.initializeAllAdapters(root);
        service.setState(Connection::StateConnected);
        host.runUntilIdle();
        manager.startAllAdapters();
        host.runUntilIdle();
    }

    /// Sends update text on the newest subscription and runs the loop.
    void push(const std::string& update) {
        ASSERT_FALSE(service.subscriptions().empty());
        service.pushRuntimeUpdate(service.subscriptions().back(), "", update);
        host.runUntilIdle();
    }

    template <typename T = DataObject>
    std::shared_ptr<T> at(const std::string& path) const {
        return std::dynamic_pointer_cast<T>(root->lookupDataContext(path));
    }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    testkit::LogCapture log;
    testkit::NotificationRecorder recorder;
    ContentAdapterManager manager{service.context()};
    std::vector<std::shared_ptr<ContentAdapterConfiguration>> configs;
    std::shared_ptr<DataObject> root;

private:
    static void unbind(RuntimeDataObject& node) {
        node.boundDataObject.reset();
        for (auto child = node.beginChildren(); child != node.endChildren(); ++child) {
            unbind(**child);
        }
        auto* list = dynamic_cast<RuntimeDataObjectList*>(&node);
        if (!list) {
            return;
        }
        list->itemTemplateDataObject.reset();
        if (list->runtimeItemTemplate) {
            unbind(*list->runtimeItemTemplate);
        }
        for (std::size_t i = 0; i < list->itemCount(); ++i) {
            unbind(*list->getItem(i));
        }
    }
};

}  // namespace test
}  // namespace zarvo

#endif
