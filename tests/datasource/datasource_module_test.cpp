// The plug-in's module and metaclasses, as the engine sees them.

#include "datasource/datasource_module.h"
#include "datasource/abstract_tethrix_datasource.h"
#include "datasource/zarvo_tethrix_datasource.h"

#include <zarvo/resource_manager.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>

namespace zarvo {
namespace test {
namespace {

TEST(ModuleTest, OffersTheDataSourceMetaclassOnceAndInstallsTheImageProtocols) {
    testkit::TestHost host;
    testkit::LogCapture log;
    Module* module = createModule();
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->domain, nullptr);
    const std::vector<const Metaclass*> metaclasses = module->getMetaclassesOverride();
    EXPECT_EQ(module->getMetaclassesOverride(), metaclasses);
    EXPECT_THAT(metaclasses, ::testing::ElementsAre(ZarvoTethrixDataSource::getStaticMetaclass()));

    // Registering metadata adds no class; it installs the remote image protocols.
    ObjectFactory empty;
    module->domain = &host.domain();
    module->registerMetadataOverride(empty);
    EXPECT_TRUE(host.domain().getResourceManager()->supportsProtocolHandler("http"));
    EXPECT_TRUE(host.domain().getResourceManager()->supportsProtocolHandler("https"));
    EXPECT_TRUE(empty.getMetaclasses().empty());
    destroyModule(module);
}

TEST(ModuleTest, MetaclassesHaveTheirNamesBasesFlagsAndProperties) {
    // An empty base: none.
    struct Row {
        const Metaclass* metaclass;
        std::string name, base;
        bool abstract;
        std::vector<std::string> props;
    };
    const std::vector<Row> rows = {
        {DataContext::getStaticMetaclass(),
         "Zarvo.DataContext",
         "",
         true,
         {DataContext::DataContextProperty.getName(), DataContext::ItemsSourceProperty.getName()}},
        {DataSource::getStaticMetaclass(), "Zarvo.DataSource", "Zarvo.DataContext", true, {}},
        {AbstractTethrixDataSource::getStaticMetaclass(), "AbstractTethrixDataSource", "Zarvo.DataSource", true, {}},
        // The concrete class names DataSource as its base, skipping the
        // abstract class that has nothing for the engine to know.
        {ZarvoTethrixDataSource::getStaticMetaclass(),
         "ZarvoTethrixDataSource",
         "Zarvo.DataSource",
         false,
         {"ZarvoTethrixDataSource.XmlFileName", "ZarvoTethrixDataSource.XmlDeclaration"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.metaclass->getName(), row.name);
        EXPECT_EQ(row.metaclass->getBase() ? std::string(row.metaclass->getBase()->getName()) : "", row.base);
        EXPECT_EQ(row.metaclass->isAbstract(), row.abstract);
        EXPECT_TRUE(row.metaclass->isSealed());
        std::vector<std::string> names;
        for (const AbstractPropertyType* type : row.metaclass->getPropertyTypes()) {
            names.push_back(type->getName());
        }
        EXPECT_EQ(names, row.props);
    }
}

}  // namespace
}  // namespace test
}  // namespace zarvo
