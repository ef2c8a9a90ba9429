// Polling a file for changes on the loop's timers.

#include "datasource/file_tracker.h"

#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/files.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace zarvo {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using std::chrono::milliseconds;

const milliseconds TICK(1000);

class FileTrackerTest : public ::testing::Test {
protected:
    static void write(const std::string& path, time_t modified) {
        std::ofstream(path) << "<x/>";
        utimbuf times{modified, modified};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
    }

    std::function<void(string_view)> record() {
        return [this](string_view name) { calls.push_back(name.to_string()); };
    }

    testkit::TestHost host;
    FileTracker tracker{&host.loop()};
    testkit::TemporaryDirectory directory;
    const std::string first = directory.file("first.xml");
    const std::string second = directory.file("second.xml");
    std::vector<std::string> calls;
};

TEST_F(FileTrackerTest, ReportsEachChangeOfModificationTimeOnce) {
    write(first, 1000);
    tracker.start(first, record());

    host.advance(TICK);
    EXPECT_THAT(calls, IsEmpty());  // the state at start counts as seen

    write(first, 2000);
    host.advance(TICK);
    host.advance(TICK);
    write(first, 1500);  // older is a change as well
    host.advance(TICK);

    EXPECT_THAT(calls, ElementsAre(first, first));
}

TEST_F(FileTrackerTest, PollsOncePerSecondOnly) {
    write(first, 1000);
    tracker.start(first, record());
    write(first, 2000);

    host.advance(milliseconds(999));
    EXPECT_THAT(calls, IsEmpty());
    host.advance(milliseconds(1));
    EXPECT_THAT(calls, ElementsAre(first));
}

TEST_F(FileTrackerTest, DisappearingAndReappearingFileAreChanges) {
    write(first, 1000);
    tracker.start(first, record());

    std::remove(first.c_str());
    host.advance(TICK);
    host.advance(TICK);  // still gone: time 0 both times
    write(first, 1000);
    host.advance(TICK);

    EXPECT_THAT(calls, ElementsAre(first, first));
}

TEST_F(FileTrackerTest, FileMissingAtStartFiresWhenItAppears) {
    tracker.start(first, record());
    host.advance(TICK);
    write(first, 1000);
    host.advance(TICK);
    EXPECT_THAT(calls, ElementsAre(first));
}

TEST_F(FileTrackerTest, CallbackMayStopAndRestartItsOwnTracker) {
    write(first, 1000);
    int reloads = 0;
    std::function<void(string_view)> reload = [&](string_view) {
        ++reloads;
        tracker.stop();
        tracker.start(first, reload);
    };
    tracker.start(first, reload);

    write(first, 2000);
    host.advance(TICK);
    host.advance(TICK);

    EXPECT_EQ(reloads, 1);
    EXPECT_EQ(host.loop().timerCount(), 1u);
}

TEST_F(FileTrackerTest, ChangeIsSeenAgainWhenTheCallbackThrows) {
    testkit::LogCapture log;
    write(first, 1000);
    int attempts = 0;
    tracker.start(first, [&](string_view) {
        ++attempts;
        throw std::runtime_error("reload failed");
    });
    write(first, 2000);

    // The loop reports what the callback let out and goes on.
    host.advance(TICK);
    host.advance(TICK);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(log.messages(LogLevel::Error).size(), 2u);
}

}  // namespace
}  // namespace test
}  // namespace zarvo
