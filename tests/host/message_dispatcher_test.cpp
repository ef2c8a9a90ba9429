#include <zarvo/message_dispatcher.h>
#include <zarvo/testkit/log_capture.h>
#include <zarvo/testkit/test_host.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zarvo {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

class ManualLoopTest : public testing::Test {
protected:
    ZvuMessageDispatcher loop{ZvuMessageDispatcher::Clock::Manual};
    std::vector<std::string> events;

    std::shared_ptr<void> addTimer(int interval, ZvuTimerMessageMode mode, const std::string& label) {
        return addTimerHandler(&loop, milliseconds(interval), mode, [this, label](const TimerMessageArguments& a) {
            events.push_back(label + "@" + std::to_string(a.timestamp.count()));
        });
    }
};

TEST_F(ManualLoopTest, TimersFireInDueOrderAndRepeatEveryPeriod) {
    addTimer(300, ZvuTimerMessageModeRepeat, "slow");
    addTimer(100, ZvuTimerMessageModeRepeat, "fast");
    addTimer(250, ZvuTimerMessageModeSingleShot, "once");

    loop.advance(milliseconds(99));
    EXPECT_TRUE(events.empty());
    loop.advance(milliseconds(551));

    // At equal times, the timer that was scheduled first fires first.
    EXPECT_THAT(events, ElementsAre("fast@100", "fast@200", "once@250", "slow@300", "fast@300", "fast@400",
                                    "fast@500", "slow@600", "fast@600"));
    EXPECT_EQ(loop.now(), milliseconds(650));
    EXPECT_EQ(loop.timerCount(), 2u) << "the single shot removes itself";
}

TEST_F(ManualLoopTest, PostedWorkRunsBetweenTimersAtTheTimeItWasPosted) {
    addTimerHandler(&loop, milliseconds(100), ZvuTimerMessageModeRepeat, [this](const TimerMessageArguments&) {
        events.push_back("tick@" + std::to_string(loop.now().count()));
        loop.post([this] { events.push_back("posted@" + std::to_string(loop.now().count())); });
    });
    loop.advance(milliseconds(250));
    EXPECT_THAT(events, ElementsAre("tick@100", "posted@100", "tick@200", "posted@200"));
}

TEST_F(ManualLoopTest, RepeatingTimerRemovedInsideItsHandlerNeverFiresAgain) {
    std::shared_ptr<void> token;
    int calls = 0;
    token = addTimerHandler(&loop, milliseconds(1000), ZvuTimerMessageModeRepeat,
                            [&](const TimerMessageArguments&) {
                                ++calls;
                                removeTimerHandler(&loop, token);
                            });
    loop.advance(milliseconds(5000));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(loop.timerCount(), 0u);
}

TEST_F(ManualLoopTest, RunUntilIdleRunsChainsOfPostedWorkAndCountsThem) {
    loop.post([this] {
        events.push_back("a");
        loop.post([this] { events.push_back("c"); });
    });
    loop.post([this] { events.push_back("b"); });
    EXPECT_EQ(loop.runUntilIdle(), 3u);
    EXPECT_THAT(events, ElementsAre("a", "b", "c"));
    EXPECT_EQ(loop.runUntilIdle(), 0u);
}

TEST_F(ManualLoopTest, ACallbackExceptionIsLoggedAndTheLoopGoesOn) {
    testkit::LogCapture log;
    loop.post([] { throw std::runtime_error("disk on fire"); });
    loop.post([] { throw 42; });
    loop.post([this] { events.push_back("after"); });
    addTimerHandler(&loop, milliseconds(10), ZvuTimerMessageModeRepeat,
                    [](const TimerMessageArguments&) { throw std::logic_error("bad tick"); });
    loop.advance(milliseconds(20));

    EXPECT_THAT(events, ElementsAre("after"));
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].level, LogLevel::Error);
    EXPECT_EQ(entries[0].category, "host");
    EXPECT_THAT(entries[0].message, testing::HasSubstr("disk on fire"));
    EXPECT_THAT(entries[2].message, testing::HasSubstr("bad tick"));
    EXPECT_THAT(entries[3].message, testing::HasSubstr("bad tick")) << "the throwing timer keeps repeating";
}

TEST(SteadyLoopTest, WorkPostedFromOtherThreadsRunsOnTheLoopThreadUntilQuit) {
    ZvuMessageDispatcher loop;
    const auto loopThread = std::this_thread::get_id();
    std::atomic<int> onLoop{0};
    int count = 0;  // loop thread only
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                loop.post([&] {
                    onLoop += std::this_thread::get_id() == loopThread;
                    if (++count == 400) {
                        loop.quit();
                    }
                });
            }
        });
    }
    loop.run();
    for (auto& poster : posters) {
        poster.join();
    }
    EXPECT_EQ(count, 400);
    EXPECT_EQ(onLoop, 400);
}

TEST(SteadyLoopTest, RunUntilStopsWhenDoneAndReportsATimeout) {
    ZvuMessageDispatcher loop;
    bool done = false;
    std::thread worker([&] { loop.post([&] { done = true; }); });
    EXPECT_TRUE(loop.runUntil([&] { return done; }, milliseconds(10000)));
    worker.join();

    EXPECT_FALSE(loop.runUntil([] { return false; }, milliseconds(0)));
}

}  // namespace
}  // namespace zarvo
