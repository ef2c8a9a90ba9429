// The plug-in's module and metaclasses, as the engine sees them.

#include "datasource/abstract_tethrix_datasource.h"
#include "datasource/datasource_module.h"
#include "datasource/zarvo_tethrix_datasource.h"

#include <zarvo/resource_manager.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>

#include <stdexcept>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override { module = createModule(); }
    void TearDown() override { destroyModule(module); }

    testkit::TestHost host;
    testkit::LogCapture log;
    Module* module = nullptr;
};

std::vector<std::string> propertyNames(const Metaclass& metaclass) {
    std::vector<std::string> names;
    for (const AbstractPropertyType* type : metaclass.getPropertyTypes()) {
        names.push_back(type->getName());
    }
    return names;
}

TEST_F(ModuleTest, OffersExactlyTheDataSourceMetaclassBuiltOnce) {
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->domain, nullptr);
    const std::vector<const Metaclass*> first = module->getMetaclassesOverride();
    const std::vector<const Metaclass*> second = module->getMetaclassesOverride();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first[0], ZarvoTethrixDataSource::getStaticMetaclass());
}

struct MetaclassRow {
    const Metaclass* metaclass;
    std::string name;
    std::string base;  // empty: none
    bool abstract;
    std::vector<std::string> properties;
};

TEST_F(ModuleTest, MetaclassesHaveTheirNamesBasesFlagsAndProperties) {
    const std::vector<MetaclassRow> rows = {
        {DataContext::getStaticMetaclass(), "Zarvo.DataContext", "", true,
         {DataContext::DataContextProperty.getName(), DataContext::ItemsSourceProperty.getName()}},
        {DataSource::getStaticMetaclass(), "Zarvo.DataSource", "Zarvo.DataContext", true, {}},
        {AbstractTethrixDataSource::getStaticMetaclass(), "AbstractTethrixDataSource", "Zarvo.DataSource", true, {}},
        // The concrete class names DataSource as its base, skipping the
        // abstract class that has nothing for the engine to know.
        {ZarvoTethrixDataSource::getStaticMetaclass(), "ZarvoTethrixDataSource", "Zarvo.DataSource", false,
         {"ZarvoTethrixDataSource.XmlFileName", "ZarvoTethrixDataSource.XmlDeclaration"}},
    };
    for (const MetaclassRow& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.metaclass->getName(), row.name);
        EXPECT_EQ(row.metaclass->getBase() ? std::string(row.metaclass->getBase()->getName()) : "", row.base);
        EXPECT_EQ(row.metaclass->isAbstract(), row.abstract);
        EXPECT_TRUE(row.metaclass->isSealed());
        EXPECT_EQ(propertyNames(*row.metaclass), row.properties);
    }
}

TEST_F(ModuleTest, EngineCreatesTheSourceByTypeName) {
    ObjectFactory factory;
    for (const Metaclass* metaclass : module->getMetaclassesOverride()) {
        factory.registerMetaclass(metaclass);
    }
    std::shared_ptr<Object> object = factory.create("ZarvoTethrixDataSource", &host.domain(), "Media");
    auto source = std::dynamic_pointer_cast<ZarvoTethrixDataSource>(object);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source->getObjectName(), "Media");
    EXPECT_EQ(source->getDynamicMetaclass(), ZarvoTethrixDataSource::getStaticMetaclass());
    EXPECT_TRUE(ZarvoTethrixDataSource::getStaticMetaclass()->isMetaclassOf(*source));
    EXPECT_TRUE(DataSource::getStaticMetaclass()->isMetaclassOf(*source));
}

class OtherDataSource : public DataSource {
public:
    using DataSource::DataSource;
    const Metaclass* getDynamicMetaclass() const override { return DataSource::getStaticMetaclass(); }
    std::shared_ptr<DataObject> getData() override { return nullptr; }
};

TEST_F(ModuleTest, RegisteringMetadataInstallsTheRemoteImageProtocols) {
    ObjectFactory factory;
    module->domain = &host.domain();
    module->registerMetadataOverride(factory);
    ResourceManager* resources = host.domain().getResourceManager();
    EXPECT_TRUE(resources->supportsProtocolHandler("http"));
    EXPECT_TRUE(resources->supportsProtocolHandler("https"));
    EXPECT_TRUE(factory.getMetaclasses().empty());
}

}  // namespace
}  // namespace test
}  // namespace zarvo
