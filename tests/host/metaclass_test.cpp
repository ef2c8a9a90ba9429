#include <zarvo/data_source.h>
#include <zarvo/module.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace zarvo {
namespace {

using testing::ElementsAre;

// A creatable source, declared the way plug-ins do.
class SampleSource : public DataSource {
public:
    SampleSource(Domain* domain, string_view name) : DataSource(domain, name) {}
    static std::shared_ptr<SampleSource> create(Domain* domain, string_view name) {
        return std::make_shared<SampleSource>(domain, name);
    }
    std::shared_ptr<DataObject> getData() override { return nullptr; }
    const Metaclass* getDynamicMetaclass() const override { return getStaticMetaclass(); }

    static const Metaclass* getStaticMetaclass() {
        static const MetaclassImpl<SampleSource> metaclass("SampleSource", DataSource::getStaticMetaclass(), false, {},
                                                           &DataSource::makeEditorInfo);
        return &metaclass;
    }
};

class OtherSource : public DataSource {
public:
    using DataSource::DataSource;
    std::shared_ptr<DataObject> getData() override { return nullptr; }
    const Metaclass* getDynamicMetaclass() const override { return DataSource::getStaticMetaclass(); }
};

TEST(MetaclassTest, IsMetaclassOfFollowsTheClassTreeAndAbstractMetaclassesRefuseToCreate) {
    SampleSource sample(nullptr, "s");
    OtherSource other(nullptr, "o");
    const Metaclass* sampleMeta = SampleSource::getStaticMetaclass();
    EXPECT_TRUE(sampleMeta->isMetaclassOf(sample));
    EXPECT_FALSE(sampleMeta->isMetaclassOf(other));
    EXPECT_FALSE(sampleMeta->isMetaclassOf(nullptr));
    EXPECT_TRUE(DataSource::getStaticMetaclass()->isMetaclassOf(other));
    EXPECT_FALSE(DataContext::getStaticMetaclass()->isMetaclassOf(other)) << "a static metaclass claims nothing";
    auto data = std::make_shared<DataObject>(nullptr, "d");
    EXPECT_EQ(data->getDynamicMetaclass(), DataObject::getStaticMetaclass());
    EXPECT_TRUE(DataObject::getStaticMetaclass()->isMetaclassOf(*data));
    for (const Metaclass* metaclass :
         {DataContext::getStaticMetaclass(), DataSource::getStaticMetaclass(), DataObject::getStaticMetaclass()}) {
        try {
            metaclass->create(nullptr, "x");
            ADD_FAILURE() << metaclass->getName() << " created an object";
        } catch (const std::logic_error& error) {
            EXPECT_EQ(std::string(error.what()),
                      std::string("Tried to create an abstract type object '") + metaclass->getName() + "'");
        }
    }
}

TEST(ObjectFactoryTest, CreatesRegisteredTypesByName) {
    ObjectFactory factory;
    factory.registerMetaclass(SampleSource::getStaticMetaclass());
    factory.registerMetaclass(DataSource::getStaticMetaclass());
    factory.registerMetaclass(nullptr);
    EXPECT_EQ(factory.getMetaclasses().size(), 2u);
    EXPECT_NE(std::dynamic_pointer_cast<SampleSource>(factory.create("SampleSource", nullptr, "made")), nullptr);
    try {
        factory.create("Missing", nullptr, "x");
        ADD_FAILURE();
    } catch (const std::logic_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("'Missing'"));
    }
}

}  // namespace
}  // namespace zarvo
