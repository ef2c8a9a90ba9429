#include <zarvo/message_dispatcher.h>

#include <zarvo/log.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace zarvo {

// A registered timer. It stays in `timers` while its handler runs (a repeating
// one, that is), so that removeTimer() from inside the handler finds it; fire()
// then sees whether it is still registered before scheduling the next period.
struct ZvuMessageDispatcher::Timer {
    std::chrono::milliseconds interval;
    ZvuTimerMessageMode mode;
    std::function<void(const TimerMessageArguments&)> handler;
    std::chrono::milliseconds due;
    bool firing = false;
};

namespace {

using std::chrono::milliseconds;

template <typename Map>
typename Map::iterator findTimer(Map& timers, const void* timer) {
    return std::find_if(timers.begin(), timers.end(),
                        [timer](const typename Map::value_type& entry) { return entry.second.get() == timer; });
}

}  // namespace

ZvuMessageDispatcher::ZvuMessageDispatcher(Clock clock) : clock(clock), start(std::chrono::steady_clock::now()) {}

ZvuMessageDispatcher::~ZvuMessageDispatcher() = default;

void ZvuMessageDispatcher::post(std::function<void()> task) {
    if (!task) {
        return;
    }
    std::shared_ptr<const ExternalWait> external;
    {
        std::lock_guard<std::mutex> lock(mutex);
        posted.push_back(std::move(task));
        external = externalWait;
    }
    wake.notify_all();
    if (external) {
        external->interrupt();
    }
}

bool ZvuMessageDispatcher::setExternalWait(std::shared_ptr<const ExternalWait> external) {
    std::lock_guard<std::mutex> lock(mutex);
    if (externalWait) {
        return false;
    }
    externalWait = std::move(external);
    return true;
}

void ZvuMessageDispatcher::clearExternalWait(const ExternalWait* external) {
    std::lock_guard<std::mutex> lock(mutex);
    if (externalWait.get() == external) {
        externalWait.reset();
    }
}

std::shared_ptr<void> ZvuMessageDispatcher::addTimer(milliseconds interval, ZvuTimerMessageMode mode,
                                                     std::function<void(const TimerMessageArguments&)> handler) {
    if (!handler) {
        return nullptr;
    }
    auto timer = std::make_shared<Timer>();
    // A repeating timer of no period would keep the loop busy for ever.
    timer->interval =
        mode == ZvuTimerMessageModeRepeat ? std::max(interval, milliseconds(1)) : std::max(interval, milliseconds(0));
    timer->mode = mode;
    timer->handler = std::move(handler);
    timer->due = now() + timer->interval;
    timers.emplace(timer->due, timer);
    ++nextTimerSequence;
    return timer;
}

void ZvuMessageDispatcher::removeTimer(const std::shared_ptr<void>& token) {
    if (!token) {
        return;
    }
    auto it = findTimer(timers, token.get());
    if (it != timers.end()) {
        timers.erase(it);
    }
}

milliseconds ZvuMessageDispatcher::now() const {
    if (clock == Clock::Manual) {
        return manualNow;
    }
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

std::size_t ZvuMessageDispatcher::timerCount() const {
    return timers.size();
}

std::shared_ptr<ZvuMessageDispatcher::Timer> ZvuMessageDispatcher::nextDueTimer(milliseconds at) {
    for (auto& entry : timers) {
        if (entry.first > at) {
            return nullptr;
        }
        if (!entry.second->firing) {
            return entry.second;
        }
    }
    return nullptr;
}

void ZvuMessageDispatcher::invoke(const std::function<void()>& task) {
    try {
        task();
    } catch (const std::exception& exception) {
        ZARVO_LOG_ERROR("host", "Uncaught exception in a message loop callback: {}", exception.what());
    } catch (...) {
        ZARVO_LOG_ERROR("host", "Uncaught exception of unknown type in a message loop callback");
    }
}

void ZvuMessageDispatcher::fire(const std::shared_ptr<Timer>& timer) {
    const TimerMessageArguments arguments{timer->interval, timer->due};
    if (timer->mode != ZvuTimerMessageModeRepeat) {
        removeTimer(timer);
        invoke([&] { timer->handler(arguments); });
        return;
    }

    timer->firing = true;
    invoke([&] { timer->handler(arguments); });
    timer->firing = false;

    auto it = findTimer(timers, timer.get());
    if (it == timers.end()) {
        return;  // removed by its own handler
    }
    timers.erase(it);
    timer->due += timer->interval;
    if (clock == Clock::Steady && timer->due <= now()) {
        // After a stall, go on from now instead of firing the missed periods
        // in a burst.
        timer->due = now() + timer->interval;
    }
    timers.emplace(timer->due, timer);
}

bool ZvuMessageDispatcher::runOneReady() {
    std::function<void()> task;
    std::shared_ptr<const ExternalWait> external;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!posted.empty()) {
            task = std::move(posted.front());
            posted.pop_front();
        } else {
            external = externalWait;
        }
    }
    if (task) {
        invoke(task);
        return true;
    }
    // Input of the external wait comes next, as work posted by an I/O
    // thread would: a timer that is always due must not shut it out.
    bool ran = false;
    if (external) {
        invoke([&] { ran = external->poll(); });
        if (ran) {
            return true;
        }
    }
    auto timer = nextDueTimer(now());
    if (!timer) {
        return false;
    }
    fire(timer);
    return true;
}

std::size_t ZvuMessageDispatcher::runUntilIdle() {
    std::size_t count = 0;
    while (runOneReady()) {
        ++count;
    }
    return count;
}

void ZvuMessageDispatcher::advance(milliseconds by) {
    if (clock != Clock::Manual) {
        return;
    }
    const milliseconds target = manualNow + std::max(by, milliseconds(0));
    runUntilIdle();
    while (auto timer = nextDueTimer(target)) {
        manualNow = std::max(manualNow, timer->due);
        runUntilIdle();
    }
    manualNow = target;
    runUntilIdle();
}

void ZvuMessageDispatcher::run() {
    runUntil([] { return false; }, milliseconds::max());
}

bool ZvuMessageDispatcher::runUntil(const std::function<bool()>& done, milliseconds timeout) {
    using SteadyClock = std::chrono::steady_clock;
    const auto begin = SteadyClock::now();
    // A timeout too large to add to the clock means no deadline.
    const bool hasDeadline = timeout < std::chrono::duration_cast<milliseconds>(SteadyClock::time_point::max() - begin);
    const auto deadline = hasDeadline ? begin + timeout : SteadyClock::time_point::max();

    for (;;) {
        if (done()) {
            return true;
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (quitRequested) {
                // A quit() that came before the loop started counts too, so
                // that another thread cannot lose the race against run().
                quitRequested = false;
                break;
            }
        }
        if (runOneReady()) {
            continue;
        }
        if (clock == Clock::Manual && !hasDeadline) {
            return done();  // run() on a manual clock: idle means finished
        }

        std::unique_lock<std::mutex> lock(mutex);
        auto wakeAt = deadline;
        if (clock == Clock::Steady && !timers.empty()) {
            wakeAt = std::min(wakeAt, start + timers.begin()->first);
        }
        if (SteadyClock::now() >= deadline) {
            lock.unlock();
            return done();
        }
        if (externalWait) {
            // Work posted meanwhile has interrupted the wait already, or
            // will: interrupt() is called after the work is queued.
            const auto external = externalWait;
            if (!posted.empty() || quitRequested) {
                continue;
            }
            lock.unlock();
            invoke([&] { external->wait(wakeAt); });
            continue;
        }
        wake.wait_until(lock, wakeAt, [this] { return !posted.empty() || quitRequested; });
    }
    return done();
}

void ZvuMessageDispatcher::quit() {
    std::shared_ptr<const ExternalWait> external;
    {
        std::lock_guard<std::mutex> lock(mutex);
        quitRequested = true;
        external = externalWait;
    }
    wake.notify_all();
    if (external) {
        external->interrupt();
    }
}

std::shared_ptr<void> addTimerHandler(ZvuMessageDispatcher* dispatcher, std::chrono::milliseconds interval,
                                      ZvuTimerMessageMode mode,
                                      std::function<void(const TimerMessageArguments&)> handler) {
    if (dispatcher == nullptr) {
        return nullptr;
    }
    return dispatcher->addTimer(interval, mode, std::move(handler));
}

void removeTimerHandler(ZvuMessageDispatcher* dispatcher, std::shared_ptr<void> token) {
    if (dispatcher == nullptr) {
        return;
    }
    dispatcher->removeTimer(token);
}

}  // namespace zarvo
