// The XML snapshot of what a data source holds, as an outside caller reads it.

#include "data_source_fixture.h"

#include "datasource/tethrix_data_object_list.h"

#include <zarvo/resource_manager.h>

#include <gmock/gmock.h>
#include <tinyxml2.h>

#include <cmath>
#include <limits>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const NOW_AND_TRACKS = R"(<sources>
  <now uri="com.tavelorix.content/now"><field name="rank" type="int"/><field name="title" type="string"/></now>
  <tracks uri="com.tavelorix.content/tracks" type="list" block_size="10"><field name="title" type="string"/></tracks>
</sources>)";

class Snapshot : public DataSourceFixture {
protected:
    void registerSource(const std::string& declaration) {
        source = makeSource(declaration);
        host.domain().getResourceManager()->registerResource("DataSource", source);
    }

    std::string take(const std::string& name = "DataSource") {
        ZarvoTethrixDataSource::takeDataSnapshot(&host.domain(), name, fileName, snapshot);
        return snapshot;
    }

    /// Answers the first query sent to `uri` with `rows`.
    void answer(const std::string& uri, const std::vector<ContentResult::Column>& columns,
                const std::vector<std::vector<boost::any>>& rows) {
        for (const auto& query : service.queries()) {
            if (query.uri == uri) {
                service.reply(query, columns, rows, 0);
                host.runUntilIdle();
                return;
            }
        }
        FAIL() << "no query for " << uri;
    }

    std::shared_ptr<ZarvoTethrixDataSource> source;
    std::string fileName = "untouched";
    std::string snapshot = "untouched";
};

TEST_F(Snapshot, SourceWithoutAdaptersIsAnEmptyRootThatIsOk) {
    registerSource(std::string());
    EXPECT_EQ(take(), "<root status=\"OK\"/>\n");
    EXPECT_EQ(fileName, "");
}

TEST_F(Snapshot, ErrorsStillGiveADocumentAndLeaveTheFileNameAlone) {
    auto plain = std::make_shared<DataObject>(&host.domain(), "Plain");
    host.domain().getResourceManager()->registerResource("Plain", plain);

    EXPECT_EQ(take("Missing"), "<root status=\"ERROR: No such resource: &quot;Missing&quot;\"/>\n");
    EXPECT_EQ(take("Plain"), "<root status=\"ERROR: Resource &quot;Plain&quot; was not ZarvoTethrix datasource.\"/>\n");
    EXPECT_EQ(fileName, "untouched");
}

TEST_F(Snapshot, ShowsEachSourceWithItsFieldsAndRowsButNotTheRootOrTheFlag) {
    registerSource(NOW_AND_TRACKS);
    load(*source);
    setState(Connection::StateConnected);
    answer("content://com.tavelorix.content/now",
           {{"rank", ContentDataTypeInteger}, {"title", ContentDataTypeString}}, {{5, std::string("Anna & Bo")}});
    answer("content://com.tavelorix.content/tracks", {{"title", ContentDataTypeString}},
           {{std::string("One")}, {std::string("")}});

    EXPECT_EQ(take(),
              "<root status=\"OK\">\n"
              "    <source uri=\"content://com.tavelorix.content/now\" name=\"now\">\n"
              "        <field name=\"rank\" type=\"integer\">5</field>\n"
              "        <field name=\"title\" type=\"string\">Anna &amp; Bo</field>\n"
              "    </source>\n"
              "    <source uri=\"content://com.tavelorix.content/tracks\" name=\"tracks\">\n"
              "        <field name=\"row0\" type=\"object\">\n"
              "            <field name=\"title\" type=\"string\">One</field>\n"
              "        </field>\n"
              "        <field name=\"row1\" type=\"object\">\n"
              "            <field name=\"title\" type=\"string\"/>\n"
              "        </field>\n"
              "    </source>\n"
              "</root>\n");
}

TEST_F(Snapshot, EachSnapshotHoldsAReferenceToEveryRow) {
    registerSource(NOW_AND_TRACKS);
    load(*source);
    setState(Connection::StateConnected);
    answer("content://com.tavelorix.content/tracks", {{"title", ContentDataTypeString}}, {{std::string("One")}});
    auto list = std::dynamic_pointer_cast<TethrixDataObjectList>(source->getData()->findChild("tracks"));
    ASSERT_NE(list, nullptr);

    take();
    take();
    list->releaseItem(0);
    EXPECT_EQ(list->getCache().getReferencedItems().count(0), 1u);
    list->releaseItem(0);
    EXPECT_EQ(list->getCache().getReferencedItems().count(0), 0u);
}

struct ValueRow {
    std::string label;
    std::shared_ptr<DataObject> object;
    std::string element;
};

TEST_F(Snapshot, RendersValuesAsTheirTypesWant) {
    Domain* domain = &host.domain();
    auto nested = std::make_shared<DataObject>(domain, "nested");
    nested->addChild(std::make_shared<DataObjectBoolean>(domain, "on", true));
    const std::vector<ValueRow> rows = {
        {"real at precision 17", std::make_shared<DataObjectReal>(domain, "r", 0.1),
         "<field name=\"r\" type=\"float\">0.10000000000000001</field>"},
        {"NaN", std::make_shared<DataObjectReal>(domain, "r", std::numeric_limits<double>::quiet_NaN()),
         "<field name=\"r\" type=\"float\">nan</field>"},
        {"negative NaN", std::make_shared<DataObjectReal>(domain, "r", -std::numeric_limits<double>::quiet_NaN()),
         "<field name=\"r\" type=\"float\">-nan</field>"},
        {"infinity", std::make_shared<DataObjectReal>(domain, "r", std::numeric_limits<double>::infinity()),
         "<field name=\"r\" type=\"float\">inf</field>"},
        {"negative infinity", std::make_shared<DataObjectReal>(domain, "r", -std::numeric_limits<double>::infinity()),
         "<field name=\"r\" type=\"float\">-inf</field>"},
        {"negative integer", std::make_shared<DataObjectInteger>(domain, "i", -42),
         "<field name=\"i\" type=\"integer\">-42</field>"},
        {"true", std::make_shared<DataObjectBoolean>(domain, "b", true), "<field name=\"b\" type=\"boolean\">1</field>"},
        {"false", std::make_shared<DataObjectBoolean>(domain, "b", false),
         "<field name=\"b\" type=\"boolean\">0</field>"},
        {"empty string", std::make_shared<DataObjectString>(domain, "s", ""), "<field name=\"s\" type=\"string\"/>"},
        {"escaped name", std::make_shared<DataObjectString>(domain, "a<b", "x"),
         "<field name=\"a&lt;b\" type=\"string\">x</field>"},
        {"plain object", nested,
         "<field name=\"nested\" type=\"object\">\n    <field name=\"on\" type=\"boolean\">1</field>\n</field>"},
    };
    for (const ValueRow& row : rows) {
        SCOPED_TRACE(row.label);
        tinyxml2::XMLDocument document;
        tinyxml2::XMLElement* parent = document.NewElement("parent");
        document.InsertFirstChild(parent);
        ZarvoTethrixDataSource::processSnapshotSingle(document, parent, row.object);
        tinyxml2::XMLPrinter printer(nullptr, false, 0);
        parent->FirstChildElement()->Accept(&printer);
        EXPECT_EQ(std::string(printer.CStr()), row.element + "\n");
    }
}

TEST_F(Snapshot, EnumFieldsAreLeftOutListFieldsShowTheirRowsAndRuntimeListsNone) {
    registerSource(R"(<sources>
  <now uri="com.tavelorix.content/now"><field name="rank" type="int"/><field name="mood" type="enum"/>
    <field name="albums" type="list" dynamic_source="albums" lookup_column="id"/></now>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums"><field name="title" type="string"/></dynamic_source>
  <player uri="servicedata://player"><integer name="volume" value="3"/>
    <list name="queue"><template><string name="title"/></template>
      <row><string name="title" value="Cold Light"/></row></list></player>
</sources>)");
    load(*source);
    setState(Connection::StateConnected);
    answer("content://com.tavelorix.content/now",
           {{"rank", ContentDataTypeInteger}, {"mood", ContentDataTypeInteger}, {"albums", ContentDataTypeString}},
           {{1, 2, std::string("7")}});
    answer("content://com.tavelorix.content/albums", {{"title", ContentDataTypeString}}, {{std::string("Blue")}});

    EXPECT_EQ(take(),
              "<root status=\"OK\">\n"
              "    <source uri=\"content://com.tavelorix.content/now\" name=\"now\">\n"
              "        <field name=\"rank\" type=\"integer\">1</field>\n"
              "        <field name=\"albums\" type=\"list\">\n"
              "            <field name=\"row0\" type=\"object\">\n"
              "                <field name=\"title\" type=\"string\">Blue</field>\n"
              "            </field>\n"
              "        </field>\n"
              "    </source>\n"
              "    <source uri=\"servicedata://player\" name=\"noname\"/>\n"
              "</root>\n");

    // A runtime source has no data object of its own; its list, rendered as
    // a field, shows no rows although it has one.
    tinyxml2::XMLDocument document;
    tinyxml2::XMLElement* parent = document.NewElement("parent");
    document.InsertFirstChild(parent);
    ZarvoTethrixDataSource::processSnapshotSingle(document, parent, source->getData()->findChild("queue"));
    tinyxml2::XMLPrinter printer(nullptr, true);
    parent->FirstChildElement()->Accept(&printer);
    EXPECT_EQ(std::string(printer.CStr()), "<field name=\"queue\" type=\"list\"/>");
}

}  // namespace
}  // namespace test
}  // namespace zarvo
