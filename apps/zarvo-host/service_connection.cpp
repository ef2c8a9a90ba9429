#include "service_connection.h"

#include "command_line.h"

#include <zarvo/client.h>
#include <zarvo/client/client_core.h>
#include <zarvo/client/network_transport.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/resource_manager.h>

#include <memory>

namespace zarvo::host {

const std::chrono::milliseconds defaultSettleLimit(10000);
const std::chrono::milliseconds quietTime(300);

namespace {

// The loop sleeps until work or a timer is due; this timer wakes it often
// enough to notice a quiet time that has passed.
const std::chrono::milliseconds pollInterval(20);

client::ClientCore& coreOf(Domain& domain) {
    return Context::instance(domain, nullptr)->getClient()->core();
}

bool isConnected(Domain& domain) {
    return Context::instance(domain, nullptr)->getClient()->getConnection()->getState() == Connection::StateConnected;
}

}  // namespace

void connectToService(Domain& domain, const std::string& url) {
    std::optional<client::NetworkTransportOptions> options = client::parseServiceUrl(url);
    if (!options) {
        throw UsageError("not a service URL: \"" + url + "\"; expected ws://HOST:PORT[/PATH] or HOST:PORT");
    }
    // The connection runs on the loop itself: no thread to wake between a
    // list's query and its answer.
    options->loop = domain.getMessageDispatcher();
    client::installTransport(*Context::instance(domain, nullptr), std::make_shared<client::NetworkTransport>(*options));
}

bool isIdle(Domain& domain) {
    return isConnected(domain) && coreOf(domain).openQueryCount() == 0 &&
           domain.getResourceManager()->pendingLoadCount() == 0;
}

std::uint64_t sentQueryCount(Domain& domain) {
    return coreOf(domain).sentQueryCount();
}

SettleOutcome waitUntilSettled(Domain& domain, std::optional<std::chrono::milliseconds> limit,
                               const std::function<void()>& watch) {
    using Clock = std::chrono::steady_clock;
    ZvuMessageDispatcher& loop = *domain.getMessageDispatcher();
    const std::shared_ptr<void> poll = loop.addTimer(pollInterval, ZvuTimerMessageModeRepeat, [](const auto&) {});
    Clock::time_point lastBusy = Clock::now();
    const bool settled = loop.runUntil(
        [&domain, &lastBusy, &watch]() {
            if (watch) {
                watch();
            }
            const Clock::time_point now = Clock::now();
            if (!isIdle(domain)) {
                lastBusy = now;
                return false;
            }
            return now - lastBusy >= quietTime;
        },
        limit.value_or(defaultSettleLimit));
    loop.removeTimer(poll);
    if (settled) {
        return SettleOutcome::Settled;
    }
    return isConnected(domain) ? SettleOutcome::Busy : SettleOutcome::Unreachable;
}

}  // namespace zarvo::host
