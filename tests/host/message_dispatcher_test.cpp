#include <zarvo/message_dispatcher.h>
#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zarvo {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

class ManualLoopTest : public testing::Test {
protected:
    ZvuMessageDispatcher loop{ZvuMessageDispatcher::Clock::Manual};
    std::vector<std::string> events;

    std::shared_ptr<void> addTimer(int interval, ZvuTimerMessageMode mode, const std::string& label) {
        return addTimerHandler(&loop, milliseconds(interval), mode, [this, label](const TimerMessageArguments& a) {
            events.push_back(label + "@" + std::to_string(a.timestamp.count()));
            if (label == "tick") {
                loop.post([this] { events.push_back("posted@" + std::to_string(loop.now().count())); });
            }
        });
    }
};

TEST_F(ManualLoopTest, TimersFireInDueOrderAndRepeatAndPostedWorkRunsAtTheTimeItWasPosted) {
    addTimer(300, ZvuTimerMessageModeRepeat, "slow");
    addTimer(100, ZvuTimerMessageModeRepeat, "tick");
    addTimer(250, ZvuTimerMessageModeSingleShot, "once");

    loop.advance(milliseconds(99));
    EXPECT_TRUE(events.empty());
    loop.advance(milliseconds(351));

    // At equal times, the timer that was scheduled first fires first.
    EXPECT_THAT(events, ElementsAre("tick@100", "posted@100", "tick@200", "posted@200", "once@250", "slow@300",
                                    "tick@300", "posted@300", "tick@400", "posted@400"));
    EXPECT_EQ(loop.now(), milliseconds(450));
    EXPECT_EQ(loop.timerCount(), 2u) << "the single shot removes itself";

    // A repeating timer removed inside its handler never fires again.
    std::shared_ptr<void> token;
    int calls = 0;
    token = addTimerHandler(&loop, milliseconds(1000), ZvuTimerMessageModeRepeat, [&](const TimerMessageArguments&) {
        ++calls;
        removeTimerHandler(&loop, token);
    });
    loop.advance(milliseconds(5000));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(loop.timerCount(), 2u);
}

TEST_F(ManualLoopTest, RunUntilIdleRunsChainsOfPostedWorkAndCallbackExceptionsAreLogged) {
    testkit::LogCapture log;
    loop.post([this] {
        events.push_back("a");
        loop.post([this] { events.push_back("c"); });
    });
    loop.post([] { throw std::runtime_error("disk on fire"); });
    loop.post([] { throw 42; });
    loop.post([this] { events.push_back("b"); });
    EXPECT_EQ(loop.runUntilIdle(), 5u);
    EXPECT_THAT(events, ElementsAre("a", "b", "c"));
    EXPECT_EQ(loop.runUntilIdle(), 0u);

    addTimerHandler(&loop, milliseconds(10), ZvuTimerMessageModeRepeat,
                    [](const TimerMessageArguments&) { throw std::logic_error("bad tick"); });
    loop.advance(milliseconds(20));
    // The throwing timer keeps repeating.
    const auto error = testing::StartsWith("error host: ");
    EXPECT_THAT(log.lines(), ElementsAre(testing::AllOf(error, HasSubstr("disk on fire")), error, HasSubstr("bad tick"),
                                         HasSubstr("bad tick")));
}

// A wait of the program's own: the loop polls it between callbacks and sleeps
// in it when idle; work posted from another thread and quit() end that sleep.
TEST(ExternalWaitTest, TheLoopPollsAndSleepsInItAndPostsAndQuitEndTheSleep) {
    ZvuMessageDispatcher loop;
    std::mutex mutex;
    std::condition_variable woken;
    bool interrupted = false;
    int ready = 2;
    auto external = std::make_shared<ZvuMessageDispatcher::ExternalWait>();
    external->wait = [&](std::chrono::steady_clock::time_point until) {
        std::unique_lock<std::mutex> lock(mutex);
        woken.wait_until(lock, until, [&] { return interrupted; });
        interrupted = false;
    };
    external->poll = [&] { return ready > 0 && ready-- > 0; };
    external->interrupt = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        interrupted = true;
        woken.notify_all();
    };
    ASSERT_TRUE(loop.setExternalWait(external));
    EXPECT_FALSE(loop.setExternalWait(std::make_shared<ZvuMessageDispatcher::ExternalWait>()));
    EXPECT_EQ(loop.runUntilIdle(), 2u);

    // The other thread waits a little, so that the loop is asleep in the wait.
    bool ran = false;
    std::thread poster([&] {
        std::this_thread::sleep_for(milliseconds(20));
        loop.post([&] { ran = true; });
        std::this_thread::sleep_for(milliseconds(20));
        loop.quit();
    });
    EXPECT_TRUE(loop.runUntil([&] { return ran; }, std::chrono::hours(1)));
    loop.run();
    poster.join();
    loop.clearExternalWait(external.get());
}

}  // namespace
}  // namespace zarvo
