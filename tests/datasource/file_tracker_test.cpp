// Polling a file for changes on the loop's timers.

#include "datasource/file_tracker.h"

#include <zarvo/testkit/files.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>

#include <utime.h>

#include <cstdio>
#include <stdexcept>

namespace zarvo {
namespace test {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const milliseconds tick(1000);

class FileTrackerTest : public ::testing::Test {
protected:
    void write(time_t modified) {
        testkit::writeFile(file, "<x/>");
        utimbuf times{modified, modified};
        ASSERT_EQ(utime(file.c_str(), &times), 0);
    }

    testkit::TestHost host;
    FileTracker tracker{&host.loop()};
    testkit::TemporaryDirectory directory;
    const std::string file = directory.file("first.xml");
    std::vector<std::string> calls;
};

TEST_F(FileTrackerTest, ReportsEachChangeOfModificationTimeOnceAtTheNextSecond) {
    write(1000);
    tracker.start(file, [this](string_view name) { calls.push_back(name.to_string()); });
    host.advance(tick);
    EXPECT_THAT(calls, IsEmpty());  // the state at start counts as seen

    write(2000);
    host.advance(milliseconds(999));
    EXPECT_THAT(calls, IsEmpty());
    host.advance(milliseconds(1));
    EXPECT_THAT(calls, ElementsAre(file));
    host.advance(tick);
    write(1500);  // older is a change as well
    host.advance(tick);
    EXPECT_EQ(calls.size(), 2u);

    // Disappearing and reappearing are changes.
    std::remove(file.c_str());
    host.advance(tick);
    host.advance(tick);  // still gone: time 0 both times
    write(1000);
    host.advance(tick);
    EXPECT_THAT(calls, ElementsAre(file, file, file, file));
}

TEST_F(FileTrackerTest, ChangeIsSeenAgainWhenTheCallbackThrows) {
    testkit::LogCapture log;
    write(1000);
    int attempts = 0;
    tracker.start(file, [&](string_view) {
        ++attempts;
        throw std::runtime_error("reload failed");
    });
    write(2000);

    // The loop reports what the callback let out and goes on.
    host.advance(tick);
    host.advance(tick);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(log.messages(LogLevel::Error).size(), 2u);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
