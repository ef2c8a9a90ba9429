// A data source configured by its two properties, and its reload when the
// configuration file changes.

#include "data_source_fixture.h"

#include <zarvo/testkit/files.h>

#include <utime.h>

#include <cstdio>

namespace zarvo {
namespace test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const char* const oneSource = R"(<sources>
  <tracks uri="com.tavelorix.content/tracks"><field name="title" type="string"/></tracks>
</sources>)";

const char* const twoSources = R"(<sources>
  <tracks uri="com.tavelorix.content/tracks"><field name="title" type="string"/></tracks>
  <artists uri="com.tavelorix.content/artists" type="list" block_size="10"><field name="name" type="string"/></artists>
</sources>)";

class ConfigurationFile : public DataSourceFixture {
protected:
    /// Writes the file with a modification time of its own, so that no test
    /// waits for the clock's second to turn, and lets the tracker see it.
    void change(const std::string& text) {
        testkit::writeFile(path, text);
        modified += 10;
        utimbuf times{modified, modified};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
        host.advance(std::chrono::milliseconds(1000));
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
    time_t modified = 1000000000;
};

TEST_F(ConfigurationFile, ChangedFileReloadsOnTheLoopLettingTheOldFlagFallThenTellingTheSourceOnceLive) {
    change(oneSource);
    start(std::string(), path);
    std::shared_ptr<DataObject> oldRoot = source->getData();
    recorder.watch(*source, "DataSource");
    bool liveWhenTold = false;
    auto token = source->addModifiedSubscription([this, &liveWhenTold](DataContext&) {
        liveWhenTold = source->isConnected() && source->getData()->findChild("artists") != nullptr;
    });
    service.takeQueries();

    host.advance(std::chrono::milliseconds(1000));  // nothing changed yet
    EXPECT_EQ(source->getData(), oldRoot);

    change(twoSources);
    EXPECT_NE(source->getData(), oldRoot);
    EXPECT_THAT(adapterNames(), ElementsAre("tracks", "artists"));
    EXPECT_THAT(recorder.events(), ElementsAre("Root.connected", "DataSource"));
    EXPECT_TRUE(liveWhenTold);
    ASSERT_EQ(service.queries().size(), 2u);  // the new adapters query at once
    EXPECT_EQ(service.queries()[1].uri, "content://com.tavelorix.content/artists");
    source->removeModifiedSubscription(token);
}

TEST_F(ConfigurationFile, MissingFileIsLoggedWatchedAndReadWhenItAppearsAndTheDeclarationStaysWhenItGoes) {
    load(*makeSource(R"(<s><now uri="com.tavelorix.content/now"/></s>)", path));
    EXPECT_THAT(log.messages(LogLevel::Error), ElementsAre(HasSubstr("ERROR, xml file " + path + " loading failed")));
    EXPECT_THAT(adapterNames(), ElementsAre("now"));

    host.advance(std::chrono::milliseconds(1000));
    EXPECT_THAT(adapterNames(), ElementsAre("now"));  // still absent: no reload

    change(twoSources);
    EXPECT_THAT(adapterNames(), ElementsAre("now", "tracks", "artists"));

    std::remove(path.c_str());
    host.advance(std::chrono::milliseconds(1000));
    EXPECT_THAT(adapterNames(), ElementsAre("now"));
}

TEST_F(ConfigurationFile, ARepairedFileReloadsTheSourceAfterABadNumber) {
    service.serve("content://com.tavelorix.content/artists",
                  {{{"name", ContentDataTypeString}}, 5, [](std::size_t, std::size_t) -> boost::any {
                       return std::string("x");
                   }});
    change(twoSources);
    start(std::string(), path);

    change(R"(<sources><artists uri="com.tavelorix.content/artists" block_size="ten"/></sources>)");
    EXPECT_EQ(source->getData(), nullptr);
    EXPECT_THAT(log.messages(LogLevel::Error), Contains(HasSubstr("it is watched for a repair")));

    change(twoSources);
    ASSERT_NE(source->getData(), nullptr);
    EXPECT_EQ(at<DataObjectList>("artists")->itemCount(), 1u);
    EXPECT_TRUE(source->isConnected());
}

}  // namespace
}  // namespace test
}  // namespace zarvo
