// A data source configured by its two properties, and its reload when the
// configuration file changes.

#include "data_source_fixture.h"

#include "datasource/content_adapter.h"

#include <zarvo/testkit/files.h>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <utime.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using std::chrono::milliseconds;

const char* const ONE_SOURCE = R"(<sources>
  <tracks uri="com.tavelorix.content/tracks"><field name="title" type="string"/></tracks>
</sources>)";

const char* const TWO_SOURCES = R"(<sources>
  <tracks uri="com.tavelorix.content/tracks"><field name="title" type="string"/></tracks>
  <artists uri="com.tavelorix.content/artists"><field name="name" type="string"/></artists>
</sources>)";

const milliseconds TICK(1000);

class ConfigurationFile : public DataSourceFixture {
protected:
    /// Writes the file and gives it a modification time of its own, so that
    /// no test waits for the clock's second to turn.
    void writeFile(const std::string& text, time_t modified) {
        std::ofstream(path) << text;
        touch(modified);
    }

    void touch(time_t modified) {
        utimbuf times{modified, modified};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
    }

    std::vector<std::string> adapterNames() const {
        std::vector<std::string> names;
        for (const auto& adapter : source->getAdapters()) {
            names.push_back(adapter->getConfig()->name);
        }
        return names;
    }

    testkit::TemporaryDirectory directory;
    const std::string path = directory.file("sources.xml");
    std::shared_ptr<ZarvoTethrixDataSource> source;
};

TEST_F(ConfigurationFile, ChangedFileReloadsTheSourceOnTheLoop) {
    writeFile(ONE_SOURCE, 1000000000);
    source = makeSource(std::string(), path);
    load(*source);
    setState(Connection::StateConnected);
    std::shared_ptr<DataObject> oldRoot = source->getData();
    testkit::NotificationRecorder recorder;
    recorder.watch(*source, "DataSource");
    service.takeQueries();

    host.advance(TICK);  // nothing changed yet
    EXPECT_EQ(source->getData(), oldRoot);

    writeFile(TWO_SOURCES, 1000000010);
    host.advance(TICK);

    EXPECT_NE(source->getData(), oldRoot);
    EXPECT_THAT(adapterNames(), ElementsAre("tracks", "artists"));
    EXPECT_THAT(recorder.events(), ElementsAre("DataSource"));
    EXPECT_TRUE(source->isConnected());
    ASSERT_EQ(service.queries().size(), 2u);  // the new adapters query at once
    EXPECT_EQ(service.queries()[1].uri, "content://com.tavelorix.content/artists");
}

TEST_F(ConfigurationFile, MissingFileIsLoggedWatchedAndPickedUpWhenItAppears) {
    source = makeSource(std::string(), path);
    load(*source);

    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre(HasSubstr("ERROR, xml file " + path + " loading failed")));
    EXPECT_EQ(source->getData()->getChildCount(), 1u);
    EXPECT_THAT(adapterNames(), IsEmpty());

    host.advance(TICK);
    EXPECT_THAT(adapterNames(), IsEmpty());  // still absent: no reload

    writeFile(ONE_SOURCE, 1000000000);
    host.advance(TICK);
    EXPECT_THAT(adapterNames(), ElementsAre("tracks"));
}

TEST_F(ConfigurationFile, DisappearingFileReloadsIntoTheDeclarationAlone) {
    writeFile(TWO_SOURCES, 1000000000);
    source = makeSource(R"(<s><now uri="com.tavelorix.content/now"/></s>)", path);
    load(*source);
    EXPECT_THAT(adapterNames(), ElementsAre("now", "tracks", "artists"));

    std::remove(path.c_str());
    host.advance(TICK);

    EXPECT_THAT(adapterNames(), ElementsAre("now"));
}

TEST_F(ConfigurationFile, AReloadLetsTheOldFlagFallThenTellsTheSourceOnceTheNewTreeIsLive) {
    writeFile(ONE_SOURCE, 1000000000);
    source = makeSource(std::string(), path);
    load(*source);
    setState(Connection::StateConnected);
    testkit::NotificationRecorder recorder;
    recorder.watchTree(source->getData());
    recorder.watch(*source, "DataSource");
    bool liveWhenTold = false;
    auto token = source->addModifiedSubscription([this, &liveWhenTold](DataContext&) {
        liveWhenTold = source->isConnected() && source->getData()->findChild("artists") != nullptr;
    });

    writeFile(TWO_SOURCES, 1000000010);
    host.advance(TICK);

    EXPECT_THAT(recorder.events(), ElementsAre("Root.connected", "DataSource"));
    EXPECT_TRUE(liveWhenTold);
    source->removeModifiedSubscription(token);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
