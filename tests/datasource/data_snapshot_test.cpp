// The XML snapshot of what a data source holds, as an outside caller reads it.

#include "data_source_fixture.h"

#include <zarvo/resource_manager.h>

#include <tinyxml2.h>

#include <limits>

namespace zarvo {
namespace test {
namespace {

class Snapshot : public DataSourceFixture {
protected:
    void registerSource(const std::string& declaration) {
        start(declaration);
        host.domain().getResourceManager()->registerResource("DataSource", source);
    }

    std::string take(const std::string& name = "DataSource") {
        ZarvoTethrixDataSource::takeDataSnapshot(&host.domain(), name, fileName, snapshot);
        return snapshot;
    }

    /// `object` as one snapshot field element.
    static std::string rendered(const std::shared_ptr<DataObject>& object, bool compact = false) {
        tinyxml2::XMLDocument document;
        tinyxml2::XMLElement* parent = document.NewElement("parent");
        document.InsertFirstChild(parent);
        ZarvoTethrixDataSource::processSnapshotSingle(document, parent, object);
        tinyxml2::XMLPrinter printer(nullptr, compact, 0);
        parent->FirstChildElement()->Accept(&printer);
        return printer.CStr();
    }

    std::string fileName = "untouched";
    std::string snapshot = "untouched";
};

TEST_F(Snapshot, ErrorsStillGiveADocumentAndLeaveTheFileNameAlone) {
    auto plain = std::make_shared<DataObject>(&host.domain(), "Plain");
    host.domain().getResourceManager()->registerResource("Plain", plain);

    EXPECT_EQ(take("Missing"), "<root status=\"ERROR: No such resource: &quot;Missing&quot;\"/>\n");
    EXPECT_EQ(take("Plain"), "<root status=\"ERROR: Resource &quot;Plain&quot; was not ZarvoTethrix datasource.\"/>\n");
    EXPECT_EQ(fileName, "untouched");

    registerSource(std::string());  // no adapters: an empty root that is OK
    EXPECT_EQ(take(), "<root status=\"OK\"/>\n");
    EXPECT_EQ(fileName, "");
}

TEST_F(Snapshot, ShowsEachSourceWithFieldsAndRowsButNotEnumsTheRootOrTheFlagAndHoldsEveryRow) {
    registerSource(R"(<sources>
  <now uri="com.tavelorix.content/now"><field name="rank" type="int"/><field name="title" type="string"/>
    <field name="mood" type="enum"/><field name="albums" type="list" dynamic_source="albums" lookup_column="id"/></now>
  <tracks uri="com.tavelorix.content/tracks" type="list" block_size="10"><field name="title" type="string"/></tracks>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums"><field name="title" type="string"/></dynamic_source>
  <player uri="servicedata://player"><list name="queue"><template><string name="title"/></template>
      <row><string name="title" value="Cold Light"/></row></list></player>
</sources>)");
    answer("content://com.tavelorix.content/now",
           {{"rank", ContentDataTypeInteger},
            {"title", ContentDataTypeString},
            {"mood", ContentDataTypeInteger},
            {"albums", ContentDataTypeString}},
           {{5, std::string("Anna & Bo"), 2, std::string("7")}});
    answer("content://com.tavelorix.content/albums", {{"title", ContentDataTypeString}}, {{std::string("Blue")}});
    answer("content://com.tavelorix.content/tracks", {{"title", ContentDataTypeString}}, {{std::string("One")}});

    EXPECT_EQ(take(),
              "<root status=\"OK\">\n"
              "    <source uri=\"content://com.tavelorix.content/now\" name=\"now\">\n"
              "        <field name=\"rank\" type=\"integer\">5</field>\n"
              "        <field name=\"title\" type=\"string\">Anna &amp; Bo</field>\n"
              "        <field name=\"albums\" type=\"list\">\n"
              "            <field name=\"row0\" type=\"object\">\n"
              "                <field name=\"title\" type=\"string\">Blue</field>\n"
              "            </field>\n"
              "        </field>\n"
              "    </source>\n"
              "    <source uri=\"content://com.tavelorix.content/tracks\" name=\"tracks\">\n"
              "        <field name=\"row0\" type=\"object\">\n"
              "            <field name=\"title\" type=\"string\">One</field>\n"
              "        </field>\n"
              "    </source>\n"
              "    <source uri=\"servicedata://player\" name=\"noname\"/>\n"
              "</root>\n");
    // A runtime source has no data object of its own; its list, rendered as
    // a field, shows no rows although it has one.
    EXPECT_EQ(rendered(at("queue"), true), "<field name=\"queue\" type=\"list\"/>");

    // Each snapshot holds a reference to every row.
    take();
    auto list = at<TethrixDataObjectList>("tracks");
    list->releaseItem(0);
    EXPECT_EQ(list->getCache().getReferencedItems().count(0), 1u);
    list->releaseItem(0);
    EXPECT_EQ(list->getCache().getReferencedItems().count(0), 0u);
}

TEST_F(Snapshot, RendersValuesAsTheirTypesWant) {
    Domain* domain = &host.domain();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    auto nested = std::make_shared<DataObject>(domain, "nested");
    nested->addChild(std::make_shared<DataObjectBoolean>(domain, "on", true));
    const std::vector<std::pair<std::shared_ptr<DataObject>, std::string>> rows = {
        {std::make_shared<DataObjectReal>(domain, "r", 0.1),
         "<field name=\"r\" type=\"float\">0.10000000000000001</field>"},
        {std::make_shared<DataObjectReal>(domain, "r", nan), "<field name=\"r\" type=\"float\">nan</field>"},
        {std::make_shared<DataObjectReal>(domain, "r", -nan), "<field name=\"r\" type=\"float\">-nan</field>"},
        {std::make_shared<DataObjectReal>(domain, "r", inf), "<field name=\"r\" type=\"float\">inf</field>"},
        {std::make_shared<DataObjectReal>(domain, "r", -inf), "<field name=\"r\" type=\"float\">-inf</field>"},
        {std::make_shared<DataObjectInteger>(domain, "i", -42), "<field name=\"i\" type=\"integer\">-42</field>"},
        {std::make_shared<DataObjectBoolean>(domain, "b", true), "<field name=\"b\" type=\"boolean\">1</field>"},
        {std::make_shared<DataObjectString>(domain, "s", ""), "<field name=\"s\" type=\"string\"/>"},
        {std::make_shared<DataObjectString>(domain, "a<b", "x"), "<field name=\"a&lt;b\" type=\"string\">x</field>"},
        {nested,
         "<field name=\"nested\" type=\"object\">\n    <field name=\"on\" type=\"boolean\">1</field>\n</field>"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(rendered(row.first), row.second + "\n");
    }
}

}  // namespace
}  // namespace test
}  // namespace zarvo
