// Runtime sources in a configuration: where they come from, what they are
// called, and how a second description of the same source merges.

#include "datasource/xml_configuration_reader.h"

#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>

namespace zarvo {
namespace {

using Configurations = XmlConfigurationReader::Configurations;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Configurations read(const std::string& declaration) {
    return XmlConfigurationReader().loadFromFile(nullptr, "", declaration);
}

std::vector<std::string> nodeNames(const ContentAdapterConfiguration& config) {
    std::vector<std::string> names;
    for (auto child = config.runtimeData->beginChildren(); child != config.runtimeData->endChildren(); ++child) {
        names.push_back((*child)->getNameOverride());
    }
    return names;
}

struct RuntimeRow {
    std::string label;
    std::string document;
    std::string uri;
    std::string name;
    std::vector<std::string> nodes;
};

TEST(RuntimeConfiguration, SourcesReadAsTheirUriNameAndTree) {
    const std::vector<RuntimeRow> rows = {
        {"root with service and no name", R"(<s service="player"><integer name="volume"/></s>)",
         "servicedata://player", "noname", {"volume"}},
        {"root's service wins over its uri", R"(<s service="player" uri="servicedata://other" name="p">
           <string name="title"/><real name="gain"/></s>)",
         "servicedata://player", "p", {"title", "gain"}},
        {"empty service with a name keeps the uri attribute",
         R"(<s service="" name="n" uri="servicedata://x"><integer name="a"/></s>)", "servicedata://x", "n", {"a"}},
        {"empty service with a name only leaves the uri empty", R"(<s service="" name="n"><integer name="a"/></s>)",
         "", "n", {"a"}},
        {"a source description whose uri is a runtime one",
         R"(<s><radio uri="servicedata://radio"><string name="station"/></radio></s>)", "servicedata://radio",
         "noname", {"station"}},
        {"exactly the scheme", R"(<s><r uri="servicedata://"><boolean name="on"/></r></s>)", "servicedata://",
         "noname", {"on"}},
        {"a dynamic_source element gets no dynamic source key",
         R"(<s><dynamic_source uri="servicedata://keys" name="keys"><string name="k"/></dynamic_source></s>)",
         "servicedata://keys", "keys", {"k"}},
    };
    for (const RuntimeRow& row : rows) {
        SCOPED_TRACE(row.label);
        testkit::LogCapture log;
        const Configurations configs = read(row.document);
        ASSERT_EQ(configs.size(), 1u);
        const ContentAdapterConfiguration& config = *configs[0];
        EXPECT_EQ(config.uri, row.uri);
        EXPECT_EQ(config.name, row.name);
        ASSERT_NE(config.runtimeData, nullptr);
        EXPECT_EQ(config.runtimeData->getType(), RuntimeDataObject::TypeObject);
        EXPECT_EQ(nodeNames(config), row.nodes);
        // What only content sources have stays as the constructor left it.
        EXPECT_EQ(config.blockSize, 0u);
        EXPECT_EQ(config.type, ContentAdapterConfiguration::Single);
        EXPECT_TRUE(config.fields.empty());
        EXPECT_TRUE(config.dynamicSource.empty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST(RuntimeConfiguration, ABrokenTreeStillGivesASourceWithoutNodes) {
    testkit::LogCapture log;
    const Configurations configs = read(R"(<s service="player"><integer name="volume" value="loud"/></s>)");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]->uri, "servicedata://player");
    EXPECT_THAT(nodeNames(*configs[0]), IsEmpty());
    const std::vector<std::string> errors = log.messages(LogLevel::Error);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), "Failed to create runtime data from xml.");
}

TEST(RuntimeConfiguration, RootSourceComesFirstAndItsChildrenAreStillRead) {
    const Configurations configs = read(R"(<s service="player">
        <integer name="volume"/>
        <tracks uri="com.tavelorix.content/tracks" type="list"/>
      </s>)");
    ASSERT_EQ(configs.size(), 2u);
    EXPECT_EQ(configs[0]->uri, "servicedata://player");
    EXPECT_EQ(configs[1]->uri, "content://com.tavelorix.content/tracks");
}

TEST(RuntimeConfiguration, ASecondDescriptionOfTheSameSourceReplacesTreeAndName) {
    testkit::LogCapture log;
    const Configurations configs = read(R"(<s>
        <a uri="servicedata://player" name="first"><integer name="volume"/></a>
        <b uri="servicedata://player"><string name="title"/></b>
      </s>)");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]->name, "noname");  // a missing name counts as "noname" and overwrites
    EXPECT_EQ(nodeNames(*configs[0]), std::vector<std::string>{"title"});
    EXPECT_THAT(log.messages(LogLevel::Info), ElementsAre("Overriding configuration from XML for servicedata://player"));
}

TEST(RuntimeConfiguration, OverridesNeverReachARuntimeSource) {
    testkit::LogCapture log;
    const Configurations configs = read(R"(<s>
        <player uri="servicedata://com.tavelorix.content/player" name="player"><integer name="x"/></player>
        <block_size target="player" size="5"/>
      </s>)");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]->blockSize, 0u);
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre("Could not find target {} for block_size-element in XML overrides"));
}

}  // namespace
}  // namespace zarvo
