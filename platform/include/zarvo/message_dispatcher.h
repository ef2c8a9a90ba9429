// The engine's message loop: posted work and timers, on one thread.
//
// A program calls run() and every callback then happens on its thread. Other
// threads hand work to it with post(). Tests drive the same loop by hand:
// runUntilIdle() runs whatever is ready, and a dispatcher made with a manual
// clock lets advance() move time, firing every timer that falls due on the
// way, in order, without any real waiting.
//
// An exception that a callback lets out is caught here, logged as an error
// with its text, and the loop goes on.
#ifndef ZARVO_MESSAGE_DISPATCHER_H
#define ZARVO_MESSAGE_DISPATCHER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace zarvo {

/// How a timer repeats. The numbers are part of the interface.
enum ZvuTimerMessageMode : int {
    ZvuTimerMessageModeSingleShot = 1,  ///< fires once, then removes itself
    ZvuTimerMessageModeRepeat = 2,      ///< fires every interval until removed
};

/// What a timer handler is told.
struct TimerMessageArguments {
    std::chrono::milliseconds interval;   ///< the timer's period
    std::chrono::milliseconds timestamp;  ///< the dispatcher's clock at firing
};

class ZvuMessageDispatcher {
public:
    enum class Clock { Steady, Manual };

    explicit ZvuMessageDispatcher(Clock clock = Clock::Steady);
    ~ZvuMessageDispatcher();
    ZvuMessageDispatcher(const ZvuMessageDispatcher&) = delete;
    ZvuMessageDispatcher& operator=(const ZvuMessageDispatcher&) = delete;

    /// Queues `task` to run on the loop's thread. Callable from any thread.
    void post(std::function<void()> task);

    /// Registers a timer; see addTimerHandler().
    std::shared_ptr<void> addTimer(std::chrono::milliseconds interval, ZvuTimerMessageMode mode,
                                   std::function<void(const TimerMessageArguments&)> handler);
    /// Ends a timer. Safe from inside its own handler, and for a null or
    /// already removed token.
    void removeTimer(const std::shared_ptr<void>& token);

    /// Runs posted work and due timers until nothing is ready. Gives the
    /// number of callbacks run.
    std::size_t runUntilIdle();

    /// Manual clock only: moves the clock forward by `by`, stopping at each
    /// timer's due time to fire it and run what became ready. Timers due at
    /// the same time fire in the order they were scheduled.
    void advance(std::chrono::milliseconds by);

    /// Runs the loop on the calling thread until quit(). With the manual
    /// clock it returns once idle, as it cannot wait for time to pass.
    void run();
    /// Runs until `done` is true, quit() is called or `timeout` passes.
    /// Gives the value of `done` at the end. `timeout` is real time on either
    /// clock: with the manual clock no timer falls due while it waits, but
    /// work posted from other threads (resource loads) runs as it comes.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    /// Makes run() return. Callable from any thread.
    void quit();

    /// The dispatcher's clock, from an arbitrary start.
    std::chrono::milliseconds now() const;

    /// Host side: a wait of the program's own for the loop to use, so that
    /// the loop's thread can also wait for input of its own (a network
    /// connection's socket, say) instead of handing it over from another
    /// thread. While nothing is ready the loop calls wait(until), which
    /// returns once it has run something or at `until`; between its own
    /// callbacks it calls poll(), which runs one thing that is ready without
    /// waiting and says whether it did; interrupt() ends a wait and is called
    /// from any thread. Set on the loop's thread. One at a time: false, and nothing changes, while another
    /// is set.
    struct ExternalWait {
        std::function<void(std::chrono::steady_clock::time_point until)> wait;
        std::function<bool()> poll;
        std::function<void()> interrupt;
    };
    bool setExternalWait(std::shared_ptr<const ExternalWait> external);
    /// Ends `external` if it is the wait set; the loop then sleeps on its
    /// own again.
    void clearExternalWait(const ExternalWait* external);

    /// Number of timers registered.
    std::size_t timerCount() const;

private:
    struct Timer;
    bool runOneReady();
    std::shared_ptr<Timer> nextDueTimer(std::chrono::milliseconds at);
    void fire(const std::shared_ptr<Timer>& timer);
    void invoke(const std::function<void()>& task);

    const Clock clock;
    const std::chrono::steady_clock::time_point start;
    std::chrono::milliseconds manualNow{0};

    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> posted;
    bool quitRequested = false;
    std::shared_ptr<const ExternalWait> externalWait;  ///< under `mutex`

    // Timers belong to the loop's thread; only posted work crosses threads.
    std::multimap<std::chrono::milliseconds, std::shared_ptr<Timer>> timers;
    std::uint64_t nextTimerSequence = 0;
};

/// Registers `handler` to be called every `interval` (mode 2) or once
/// (mode 1). Gives the registration's token.
std::shared_ptr<void> addTimerHandler(ZvuMessageDispatcher* dispatcher, std::chrono::milliseconds interval,
                                      ZvuTimerMessageMode mode,
                                      std::function<void(const TimerMessageArguments&)> handler);

/// Ends the registration of `token`. May be called from within the handler.
void removeTimerHandler(ZvuMessageDispatcher* dispatcher, std::shared_ptr<void> token);

}  // namespace zarvo

#endif
