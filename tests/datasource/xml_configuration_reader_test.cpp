#include "datasource/xml_configuration_reader.h"

#include <zarvo/testkit/files.h>
#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>
#include <boost/lexical_cast.hpp>

#include <limits>
#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using Configurations = XmlConfigurationReader::Configurations;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string prefix = "content://com.tavelorix.content/";

Configurations read(const std::string& declaration) {
    return XmlConfigurationReader().loadFromFile(nullptr, "", declaration);
}

// Reads `body` as the children of a root element.
Configurations readSources(const std::string& body) {
    return read("<sources>" + body + "</sources>");
}

std::shared_ptr<ContentAdapterConfiguration> readOne(const std::string& source) {
    const Configurations configs = readSources(source);
    EXPECT_EQ(configs.size(), 1u) << source;
    return configs.empty() ? std::make_shared<ContentAdapterConfiguration>() : configs.front();
}

std::string errorCode(tinyxml2::XMLError error) {
    return std::to_string(static_cast<int>(error));
}

struct UriCase {
    std::string attributes, uri, name;
};

TEST(XmlConfigurationReaderTest, UriIsNormalisedAndNameDerived) {
    const UriCase cases[] = {
        {R"(uri="a/b")", "content://a/b", "b"},
        {R"(uri="a")", "content://a", "a"},
        {R"(uri="content://a/b/")", "content://a/b/", ""},
        {R"(uri="")", "content://", ""},
        {R"(uri="data://x")", "content://data://x", "x"},
        {R"(uri="a&amp;b/c&lt;d")", "content://a&b/c<d", "c<d"},
        {R"(uri="a/b" name="")", "content://a/b", ""},
    };
    for (const UriCase& c : cases) {
        const auto config = readOne("<s " + c.attributes + "/>");
        EXPECT_EQ(config->uri, c.uri) << c.attributes;
        EXPECT_EQ(config->name, c.name) << c.attributes;
    }
}

TEST(XmlConfigurationReaderTest, AttributesAreReadAsTheyStand) {
    const auto config = readOne(
        R"(<s uri="x" filter=" year &gt; 1990 " sort="title DESC" limit_index="5" limit_count="7" block_size="0" type="list"/>)");
    EXPECT_EQ(config->filter, " year > 1990 ");
    EXPECT_EQ(config->sort, "title DESC");
    EXPECT_EQ(config->limitIndex, 5u);
    EXPECT_EQ(config->limitCount, 7u);
    EXPECT_EQ(config->blockSize, 0u);
    EXPECT_EQ(config->type, ContentAdapterConfiguration::List);

    for (const char* type : {"List", "single", "", "lists"}) {
        EXPECT_EQ(readOne(std::string(R"(<s uri="x" type=")") + type + "\"/>")->type,
                  ContentAdapterConfiguration::Single)
            << type;
    }
}

TEST(XmlConfigurationReaderTest, NumbersFollowTheUnsignedConversion) {
    const std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    const std::pair<const char*, std::uint64_t> valid[] = {
        {"10", 10}, {"+10", 10}, {"-0", 0}, {"007", 7}, {"-1", largest}, {"18446744073709551615", largest},
    };
    for (const auto& c : valid) {
        EXPECT_EQ(readOne(std::string(R"(<s uri="x" block_size=")") + c.first + "\"/>")->blockSize, c.second)
            << c.first;
    }
    for (const char* text : {"", "10 ", " 10", "1.5", "0x10", "1e3", "+", "--1", "1,000", "18446744073709551616"}) {
        for (const char* attribute : {"limit_index", "limit_count", "block_size"}) {
            const std::string source = std::string(R"(<s uri="x" )") + attribute + "=\"" + text + "\"/>";
            EXPECT_THROW(readSources(source), boost::bad_lexical_cast) << source;
        }
    }
    // So does the size of an override whose target is known.
    EXPECT_THROW(readSources(R"(<t uri="com.tavelorix.content/tracks"/><block_size target="tracks" size="5 "/>)"),
                 boost::bad_lexical_cast);
}

// Three-digit groups separated by ",", as many national locales have.
class GroupingPunctuation : public std::numpunct<char> {
protected:
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

class GlobalLocale {
public:
    explicit GlobalLocale(const std::locale& locale) : previous(std::locale::global(locale)) {}
    ~GlobalLocale() { std::locale::global(previous); }

private:
    std::locale previous;
};

TEST(XmlConfigurationReaderTest, NumbersHonourTheGlobalLocalesGrouping) {
    const GlobalLocale grouping(std::locale(std::locale::classic(), new GroupingPunctuation));
    EXPECT_EQ(readOne(R"(<s uri="x" block_size="1,000" limit_count="10,000,000"/>)")->limitCount, 10000000u);
    EXPECT_THROW(readSources(R"(<s uri="x" block_size="1,00"/>)"), boost::bad_lexical_cast);
}

TEST(XmlConfigurationReaderTest, FieldTypesMapByExactName) {
    const std::pair<const char*, DataObject::Type> cases[] = {
        {"integer", DataObject::TypeInteger},  {"int", DataObject::TypeInteger},   {"real", DataObject::TypeReal},
        {"float", DataObject::TypeReal},       {"bool", DataObject::TypeBoolean},  {"list", DataObject::TypeList},
        {"enum", DataObject::TypeEnumeration}, {"string", DataObject::TypeString}, {"boolean", DataObject::TypeString},
        {"Int", DataObject::TypeString},       {"", DataObject::TypeString},       {"double", DataObject::TypeString},
    };
    for (const auto& c : cases) {
        const auto config = readOne(std::string(R"(<s uri="x"><f name="v" type=")") + c.first + "\"/></s>");
        ASSERT_EQ(config->fields.size(), 1u);
        EXPECT_EQ(config->fields[0].type, c.second) << c.first;
    }
}

TEST(XmlConfigurationReaderTest, FieldsAreReadInOrderWithTheirAttributes) {
    const auto config = readOne(R"(<s uri="x">
        text <!-- comments and text are ignored -->
        <field name="title" type="string"/>
        <anything name="cover" column="art" type="string" preload_url="wait.png"><nested name="n" type="int"/></anything>
        <f name="tracks" column="" type="list" dynamic_source="trackSource" lookup_column="id"/>
        <f name="title" type="int" dynamic_source="" lookup_column=""/>
    </s>)");
    ASSERT_EQ(config->fields.size(), 4u);
    EXPECT_EQ(config->fields[0].column, "title");
    EXPECT_EQ(config->fields[1].column, "art");
    EXPECT_EQ(config->fields[2].column, "");
    EXPECT_EQ(config->fields[3].name, "title");
    EXPECT_EQ(config->fields[3].type, DataObject::TypeInteger);
}

TEST(XmlConfigurationReaderTest, OnlyElementsWithUriUnderTheFirstRootAreSources) {
    testkit::LogCapture log;
    const Configurations configs = read(R"(<?xml version="1.0"?>
        <sources service="">
          <nouri name="x"/>
          <a uri="a"/>
          <runtime uri="servicedata://player"/>
          <dynamic_source uri="servicedata://keys" name="keys"/>
        </sources>
        <more><b uri="b"/></more>)");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]->uri, "content://a");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(XmlConfigurationReaderTest, SameUriMergesOverTheEarlierSourceGivenStringsReplaceNumbersAndTypeAreTaken) {
    testkit::LogCapture log;
    const Configurations configs = readSources(R"(
        <a uri="com.tavelorix.content/tracks" filter="f" sort="s" limit_index="5" limit_count="7" block_size="50" type="list">
          <f name="title" type="string"/>
          <f name="cover" column="art" type="string" preload_url="p.png" dynamic_source="albums" lookup_column="id"/>
        </a>
        <b uri="com.tavelorix.content/albums"/>
        <c uri="content://com.tavelorix.content/tracks" name="songs" sort="year">
          <f name="artist" type="string"/><f name="cover" column="picture" type="int"/><f name="album" column="title" type="string"/>
        </c>)");
    ASSERT_EQ(configs.size(), 2u);
    const auto& tracks = *configs[0];
    EXPECT_EQ(tracks.name, "songs");
    EXPECT_EQ(tracks.filter, "f");
    EXPECT_EQ(tracks.sort, "year");
    EXPECT_EQ(tracks.limitCount, 0u);
    EXPECT_EQ(tracks.blockSize, 200u);
    EXPECT_EQ(tracks.type, ContentAdapterConfiguration::Single);
    // Fields merge by name in place; new ones, even on a known column, go to the end.
    ASSERT_EQ(tracks.fields.size(), 4u);
    EXPECT_EQ(tracks.fields[1].column, "picture");
    EXPECT_EQ(tracks.fields[1].type, DataObject::TypeInteger);
    EXPECT_EQ(tracks.fields[1].preloadUrl, "p.png");
    EXPECT_EQ(tracks.fields[1].dynamicSource, "albums");
    EXPECT_EQ(tracks.fields[1].lookupColumn, "id");
    EXPECT_EQ(tracks.fields[2].name, "artist");
    EXPECT_EQ(tracks.fields[3].name, "album");
    EXPECT_THAT(log.lines(), ElementsAre("info tethrix: Overriding configuration from XML for " + prefix + "tracks"));
}

TEST(XmlConfigurationReaderTest, FileMergesOverDeclarationAndItsOverridesReachBothButNotTheOtherWay) {
    testkit::TemporaryDirectory dir;
    const std::string file = dir.write("config.xml", R"(<sources>
        <t uri="com.tavelorix.content/tracks" block_size="20"/>
        <g uri="com.tavelorix.content/genres"/>
        <block_size target="albums" size="30"/>
    </sources>)");
    testkit::LogCapture log;
    const Configurations configs = XmlConfigurationReader().loadFromFile(nullptr, file, R"(<sources>
        <a uri="com.tavelorix.content/albums"/>
        <t uri="com.tavelorix.content/tracks" block_size="10" sort="title"/>
        <block_size target="genres" size="5"/>
    </sources>)");
    ASSERT_EQ(configs.size(), 3u);
    EXPECT_EQ(configs[0]->blockSize, 30u);
    EXPECT_EQ(configs[1]->blockSize, 20u);
    EXPECT_EQ(configs[1]->sort, "title");
    EXPECT_EQ(configs[2]->blockSize, 200u);
    EXPECT_THAT(log.messages(LogLevel::Error),
                ElementsAre("Could not find target {} for block_size-element in XML overrides"));
}

TEST(XmlConfigurationReaderTest, OverridesPatchFieldsAndBlockSize) {
    testkit::LogCapture log;
    const Configurations configs = readSources(R"(
        <t uri="com.tavelorix.content/tracks" block_size="5">
          <f name="cover" column="art" type="string" preload_url="old.png"/>
          <f name="b.c" type="list"/><f name="" column="blank" type="string"/>
        </t>
        <preload_url target="tracks.cover" uri="first.png"/>
        <preload_url target="tracks.cover" uri="second.png"/>
        <dynamic_source target="tracks.b.c" dynamic_source="albums" lookup_column="id"/>
        <preload_url target="tracks." uri="blank.png"/>
        <block_size target="tracks" size="-1"/>)");
    ASSERT_EQ(configs.size(), 1u);
    const auto& tracks = *configs[0];
    EXPECT_EQ(tracks.fields[0].preloadUrl, "second.png");
    EXPECT_EQ(tracks.fields[1].dynamicSource, "albums");
    EXPECT_EQ(tracks.fields[1].lookupColumn, "id");
    EXPECT_EQ(tracks.fields[2].preloadUrl, "blank.png");
    EXPECT_EQ(tracks.blockSize, std::numeric_limits<std::uint64_t>::max());
    EXPECT_THAT(log.lines(),
                ElementsAre("info tethrix: Setting preload_url for tracks.cover to first.png",
                            "info tethrix: Setting preload_url for tracks.cover to second.png",
                            "info tethrix: Set dynamic source for tracks.b.c to be albums and lookup column id",
                            "info tethrix: Setting preload_url for tracks. to blank.png",
                            "info tethrix: Overriding block size of " + prefix + "tracks to 18446744073709551615"));
}

TEST(XmlConfigurationReaderTest, LaterSourceResetsBlockSizeButKeepsPatchedFields) {
    const Configurations configs = readSources(R"(
        <t uri="com.tavelorix.content/tracks"><f name="cover" type="string"/><f name="art" type="string"/></t>
        <block_size target="tracks" size="0"/>
        <preload_url target="tracks.cover" uri="wait.png"/>
        <preload_url target="tracks.art" uri="wait.png"/>
        <t uri="content://com.tavelorix.content/tracks">
          <f name="cover" type="string"/><f name="art" type="string" preload_url="other.png"/>
        </t>)");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]->blockSize, 200u);
    EXPECT_EQ(configs[0]->fields[0].preloadUrl, "wait.png");
    EXPECT_EQ(configs[0]->fields[1].preloadUrl, "other.png");
}

struct BadOverrideCase {
    std::string element;
    std::vector<std::string> log;
};

TEST(XmlConfigurationReaderTest, UnresolvedOverridesAreLoggedAndSkipped) {
    const std::string unknown = "error tethrix: Could not find configuration for ";
    const std::string noBlock = "error tethrix: Could not find target {} for block_size-element in XML overrides";
    const BadOverrideCase cases[] = {
        {R"(<preload_url target="tracks" uri="p.png"/>)",
         {"error tethrix: Badly formatted target attribute \"tracks\"",
          "error tethrix: Could not find target tracks for preload_url"}},
        {R"(<preload_url target="albums.cover" uri="p.png"/>)",
         {unknown + prefix + "albums", "error tethrix: Could not find target albums.cover for preload_url"}},
        {R"(<preload_url target=".cover" uri="p.png"/>)",
         {unknown + prefix, "error tethrix: Could not find target .cover for preload_url"}},
        {R"(<preload_url target="tracks.art" uri="p.png"/>)",
         {"error tethrix: Could not find target tracks.art for preload_url"}},
        {R"(<preload_url target="content://com.tavelorix.content/tracks.cover" uri="p.png"/>)",
         {unknown + prefix + "content://com",
          "error tethrix: Could not find target "
          "content://com.tavelorix.content/tracks.cover for preload_url"}},
        {R"(<preload_url target="other.cover" uri="p.png"/>)",
         {unknown + prefix + "other", "error tethrix: Could not find target other.cover for preload_url"}},
        {R"(<preload_url target="tracks.cover" uri=""/>)",
         {"error tethrix: Badly formatted \"preload_url\" element found in XML overrides"}},
        {R"(<dynamic_source target="tracks" dynamic_source="d" lookup_column="id"/>)",
         {"error tethrix: Badly formatted target attribute \"tracks\"",
          "error tethrix: Could not find target tracks for dynamic_source"}},
        {R"(<dynamic_source target="tracks.art" dynamic_source="d" lookup_column="id"/>)",
         {"error tethrix: Could not find target tracks.art for dynamic_source"}},
        {R"(<dynamic_source target="tracks.cover" dynamic_source="d" lookup_column=""/>)",
         {"error tethrix: Badly formatted \"dynamic_source\" element found in XML overrides"}},
        {R"(<block_size target="tracks.cover" size="5"/>)", {noBlock}},
        {R"(<block_size target="albums" size=""/>)", {noBlock}},
        {R"(<block_size target="tracks"/>)",
         {"error tethrix: Badly formatted \"block_size\" element found in XML overrides"}},
    };
    const std::string tracks = R"(<t uri="com.tavelorix.content/tracks"><f name="cover" type="string"/></t>
                                  <o uri="com.other.content/other"><f name="cover" type="string"/></o>)";
    for (const BadOverrideCase& c : cases) {
        testkit::LogCapture log;
        const Configurations configs = readSources(tracks + c.element);
        EXPECT_EQ(log.lines(), c.log) << c.element;
        ASSERT_EQ(configs.size(), 2u);
        EXPECT_EQ(configs[0]->blockSize, 200u);
        EXPECT_EQ(configs[0]->fields[0].preloadUrl, "");
        EXPECT_EQ(configs[0]->fields[0].dynamicSource, "");
    }
}

TEST(XmlConfigurationReaderTest, MissingAttributesOfFieldsAndOverridesFailTheRead) {
    const char* const elements[] = {
        R"(<t uri="x"><f type="int"/></t>)",
        R"(<t uri="x"><f name="v"/></t>)",
        R"(<preload_url target="tracks.cover"/>)",
        R"(<dynamic_source target="tracks.cover" dynamic_source="d"/>)",
        R"(<block_size size="5"/>)",
    };
    for (const char* element : elements) {
        try {
            readSources(std::string(R"(<t uri="com.tavelorix.content/tracks"/>)") + element);
            ADD_FAILURE() << "no std::logic_error: " << element;
        } catch (const std::logic_error& error) {
            EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid") << element;
        }
    }
}

TEST(XmlConfigurationReaderTest, UnreadableDocumentsAreLoggedAndPassedOver) {
    testkit::TemporaryDirectory dir;
    const std::string good = dir.write("good.xml", R"(<r><a uri="file"/></r>)");
    const std::string broken = dir.write("broken.xml", R"(<r><a uri="file"/></x>)");
    const std::string missing = dir.file("missing.xml");
    const std::string declaration = R"(<r><a uri="string"/></r>)";
    XmlConfigurationReader reader;

    struct Case {
        std::string declaration, file;
        std::vector<std::string> uris, log;
    };
    const Case cases[] = {
        {"", "", {}, {}},
        {"<r><a uri='x'/>",
         good,
         {"content://file"},
         {"error tethrix: ERROR, failed to load data source override configurations, error code " +
          errorCode(tinyxml2::XML_ERROR_PARSING)}},
        {"  ",
         "",
         {},
         {"error tethrix: ERROR, failed to load data source override configurations, error code " +
          errorCode(tinyxml2::XML_ERROR_EMPTY_DOCUMENT)}},
        {declaration,
         missing,
         {"content://string"},
         {"error tethrix: ERROR, xml file " + missing + " loading failed, error code " +
          errorCode(tinyxml2::XML_ERROR_FILE_NOT_FOUND)}},
        {declaration,
         broken,
         {"content://string"},
         {"error tethrix: ERROR, xml file " + broken + " loading failed, error code " +
          errorCode(tinyxml2::XML_ERROR_MISMATCHED_ELEMENT)}},
        {"<?xml version='1.0'?><!-- no root -->", good, {"content://file"}, {}},
    };
    for (const Case& c : cases) {
        testkit::LogCapture log;
        std::vector<std::string> uris;
        for (const auto& config : reader.loadFromFile(nullptr, c.file, c.declaration)) {
            uris.push_back(config->uri);
        }
        EXPECT_EQ(uris, c.uris) << c.declaration << " + " << c.file;
        EXPECT_EQ(log.lines(), c.log) << c.declaration << " + " << c.file;
    }
}

// Runtime sources: where they come from, what they are called, and how a
// second description of the same source merges.

std::vector<std::string> nodeNames(const ContentAdapterConfiguration& config) {
    std::vector<std::string> names;
    for (auto child = config.runtimeData->beginChildren(); child != config.runtimeData->endChildren(); ++child) {
        names.push_back((*child)->getNameOverride());
    }
    return names;
}

struct RuntimeRow {
    std::string label, document, uri, name;
    std::vector<std::string> nodes;
};

TEST(XmlConfigurationReaderRuntimeTest, SourcesReadAsTheirUriNameAndTree) {
    const std::vector<RuntimeRow> rows = {
        {"root with service and no name",
         R"(<s service="player"><integer name="volume"/></s>)",
         "servicedata://player",
         "noname",
         {"volume"}},
        {"root's service wins over its uri",
         R"(<s service="player" uri="servicedata://other" name="p">
           <string name="title"/><real name="gain"/></s>)",
         "servicedata://player",
         "p",
         {"title", "gain"}},
        {"empty service with a name keeps the uri attribute",
         R"(<s service="" name="n" uri="servicedata://x"><integer name="a"/></s>)",
         "servicedata://x",
         "n",
         {"a"}},
        {"empty service with a name only leaves the uri empty",
         R"(<s service="" name="n"><integer name="a"/></s>)",
         "",
         "n",
         {"a"}},
        {"a source description whose uri is a runtime one",
         R"(<s><radio uri="servicedata://radio"><string name="station"/></radio></s>)",
         "servicedata://radio",
         "noname",
         {"station"}},
        {"a dynamic_source element gets no dynamic source key",
         R"(<s><dynamic_source uri="servicedata://keys" name="keys"><string name="k"/></dynamic_source></s>)",
         "servicedata://keys",
         "keys",
         {"k"}},
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
        EXPECT_TRUE(config.dynamicSource.empty());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST(XmlConfigurationReaderRuntimeTest, ABrokenTreeStillGivesASourceWithoutNodes) {
    testkit::LogCapture log;
    const Configurations configs = read(R"(<s service="player"><integer name="volume" value="loud"/></s>)");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]->uri, "servicedata://player");
    EXPECT_THAT(nodeNames(*configs[0]), IsEmpty());
    const std::vector<std::string> errors = log.messages(LogLevel::Error);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), "Failed to create runtime data from xml.");
}

TEST(XmlConfigurationReaderRuntimeTest,
     RootSourceComesFirstASecondDescriptionReplacesTreeAndNameAndOverridesNeverReachIt) {
    testkit::LogCapture log;
    const Configurations configs = read(R"(<s service="player">
        <integer name="volume"/>
        <tracks uri="com.tavelorix.content/tracks" type="list"/>
        <a uri="servicedata://radio" name="first"><integer name="volume"/></a>
        <b uri="servicedata://radio"><string name="title"/></b>
        <p uri="servicedata://com.tavelorix.content/player" name="player"><integer name="x"/></p>
        <block_size target="player" size="5"/>
      </s>)");
    ASSERT_EQ(configs.size(), 4u);
    EXPECT_EQ(configs[3]->blockSize, 0u);
    EXPECT_EQ(configs[0]->uri, "servicedata://player");
    EXPECT_EQ(configs[0]->blockSize, 0u);
    EXPECT_EQ(configs[1]->uri, "content://com.tavelorix.content/tracks");
    EXPECT_EQ(configs[2]->name, "noname");  // a missing name counts as "noname" and overwrites
    EXPECT_EQ(nodeNames(*configs[2]), std::vector<std::string>{"title"});
    EXPECT_THAT(log.lines(),
                ElementsAre("info tethrix: Overriding configuration from XML for servicedata://radio",
                            "error tethrix: Could not find target {} for block_size-element in XML overrides"));
}

}  // namespace
}  // namespace zarvo
