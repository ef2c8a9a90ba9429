#include <zarvo/client/loader_channel.h>

#include "runtime_data_format.h"

#include <zarvo/client.h>
#include <zarvo/client/client_core.h>
#include <zarvo/content_loader.h>
#include <zarvo/log.h>
#include <zarvo/message_dispatcher.h>

#include <algorithm>
#include <utility>

namespace zarvo {
namespace client {

namespace {
const char* const logCategory = "tethrix-client";

const char* const completedQuery = "(a completed query)";
}  // namespace

bool isPassingQueryFailure(const std::string& reason) {
    // What the transport says when the connection is down or breaks, and
    // what the service says when it cannot take a query now. A refusal of
    // the query itself (its filter, its table, its size) names what was
    // wrong and stays wrong however often it is asked. Only the start of a
    // reason is compared: the rest may quote the query's own text.
    static const char* const passing[] = {
        "not connected to the service", "connection to the service lost",     "too many open requests",
        "database: database is locked", "database: database table is locked", "timed out",
    };
    return std::any_of(std::begin(passing), std::end(passing),
                       [&reason](const char* start) { return reason.rfind(start, 0) == 0; });
}

LoaderChannel::LoaderChannel(ClientCore& core, DefaultContentLoader& loader, MessageDispatcher* dispatcher)
    : core(&core),
      loader(&loader),
      dispatcher(dispatcher),
      loaderId(core.registerLoader(*this)) {}

LoaderChannel::~LoaderChannel() {
    close();
}

void LoaderChannel::load(const ContentQueryArguments& arguments) {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (!transport) {
        ZARVO_LOG_WARNING(logCategory, "No connection to the service: the query of {} is not sent", arguments.getUri());
        return;
    }
    const std::size_t limit = core->getQueryRetryPolicy().maxOpenQueriesPerLoader;
    if (openQueries.size() >= limit) {
        ZARVO_LOG_ERROR(logCategory, "Query of {} refused: its loader has {} queries open, the most it may have",
                        arguments.getUri(), openQueries.size());
        return;
    }
    const std::uint32_t sequence = nextSequence++;
    OpenQuery& query = openQueries.emplace(sequence, OpenQuery(arguments)).first->second;
    // While the connection is lost the query waits for it to come back
    // instead of failing at the transport.
    if (!isConnectionLost()) {
        send(sequence, query);
    }
}

void LoaderChannel::send(std::uint32_t sequence, OpenQuery& query) {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (!transport) {
        return;
    }
    cancelRetry(query);
    query.sent = true;
    core->countSentQuery();
    transport->sendQuery(loaderId, RequestId::make(loaderId, sequence), query.arguments);
}

bool LoaderChannel::isConnectionLost() const {
    return core && core->getConnectionState() == Connection::StateLost;
}

void LoaderChannel::scheduleRetry(std::uint32_t sequence, OpenQuery& query) {
    const QueryRetryPolicy& policy = core->getQueryRetryPolicy();
    std::chrono::milliseconds delay = policy.firstRetryDelay;
    for (unsigned i = 1; i < query.failures && delay < policy.maxRetryDelay; ++i) {
        delay *= 2;
    }
    delay = std::min(delay, policy.maxRetryDelay);
    std::weak_ptr<LoaderChannel> weak = shared_from_this();
    query.retryTimer = addTimerHandler(core->getDispatcher().getLoop(), delay, ZvuTimerMessageModeSingleShot,
                                       [weak, sequence](const TimerMessageArguments&) {
                                           if (const auto self = weak.lock()) {
                                               self->onRetryDue(sequence);
                                           }
                                       });
}

void LoaderChannel::onRetryDue(std::uint32_t sequence) {
    const auto found = openQueries.find(sequence);
    if (found == openQueries.end() || found->second.sent) {
        return;
    }
    found->second.retryTimer.reset();
    // With the connection lost, the query waits until it is back.
    if (!isConnectionLost()) {
        send(sequence, found->second);
    }
}

void LoaderChannel::cancelRetry(OpenQuery& query) {
    if (query.retryTimer && core) {
        removeTimerHandler(core->getDispatcher().getLoop(), query.retryTimer);
    }
    query.retryTimer.reset();
}

void LoaderChannel::resendWaitingQueries() {
    for (auto& entry : openQueries) {
        if (!entry.second.sent) {
            send(entry.first, entry.second);
        }
    }
}

void LoaderChannel::subscribe(const std::string& uri) {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (!transport) {
        ZARVO_LOG_WARNING(logCategory, "No connection to the service: the subscription to {} is not sent", uri);
        return;
    }
    const std::uint32_t sequence = nextSequence++;
    subscriptions.emplace(sequence, Subscription{uri, false});
    transport->subscribeRuntimeData(loaderId, RequestId::make(loaderId, sequence), uri);
}

void LoaderChannel::stop() {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (transport) {
        for (const auto& query : openQueries) {
            if (query.second.sent) {
                transport->cancelQuery(RequestId::make(loaderId, query.first));
            }
        }
        for (const auto& subscription : subscriptions) {
            transport->unsubscribe(RequestId::make(loaderId, subscription.first));
        }
    }
    forgetRequests();
}

void LoaderChannel::forgetRequests() {
    for (auto& query : openQueries) {
        cancelRetry(query.second);
    }
    openQueries.clear();
    subscriptions.clear();
    liveFrom = nextSequence;
}

void LoaderChannel::detachFromCore() {
    // The timers belong to the core's loop; they go while it still lives.
    for (auto& query : openQueries) {
        cancelRetry(query.second);
    }
    core = nullptr;
}

void LoaderChannel::close() {
    stop();
    if (core) {
        core->unregisterLoader(loaderId);
    }
    core = nullptr;
    loader = nullptr;
}

void LoaderChannel::deliverResult(std::uint32_t sequence, QueryResult&& result) {
    if (!isLive(sequence)) {
        return;
    }
    const auto found = openQueries.find(sequence);
    const std::string uri = found == openQueries.end() ? completedQuery : found->second.arguments.getUri();
    if (found != openQueries.end()) {
        cancelRetry(found->second);
        openQueries.erase(found);
    }
    const std::size_t columns = result.columns.size();
    if (columns == 0 ? !result.cells.empty() : result.cells.size() % columns != 0) {
        ZARVO_LOG_ERROR(logCategory, "Result of the query of {} dropped: {} values do not make rows of {} columns", uri,
                        result.cells.size(), columns);
        return;
    }
    toLoader(sequence, [result = std::move(result)](DefaultContentLoader& target) mutable {
        ContentResult content(result.startIndex, std::move(result.columns), std::move(result.cells));
        target.notifyContentLoaded(content);
    });
}

void LoaderChannel::deliverQueryError(std::uint32_t sequence, const std::string& reason) {
    if (!isLive(sequence)) {
        return;
    }
    const auto found = openQueries.find(sequence);
    if (found == openQueries.end()) {
        ZARVO_LOG_ERROR(logCategory, "Query of {} failed: {}", completedQuery, reason);
        return;
    }
    OpenQuery& query = found->second;
    if (!query.sent) {
        return;  // a report about an attempt already given up for a new one
    }
    if (!core || !isPassingQueryFailure(reason)) {
        ZARVO_LOG_ERROR(logCategory, "Query of {} failed: {}", query.arguments.getUri(), reason);
        openQueries.erase(found);
        return;
    }
    query.sent = false;
    ++query.failures;
    ZARVO_LOG_WARNING(logCategory, "Query of {} failed: {}; it is asked again (failure {})", query.arguments.getUri(),
                      reason, query.failures);
    scheduleRetry(sequence, query);
}

void LoaderChannel::deliverInvalidation(std::uint32_t sequence) {
    if (!isLive(sequence)) {
        return;
    }
    toLoader(sequence, [](DefaultContentLoader& target) { target.notifyContentInvalidated(); });
}

void LoaderChannel::deliverRuntimeUpdate(std::uint32_t sequence, const std::string& address, const std::string& data) {
    const auto found = subscriptions.find(sequence);
    if (found == subscriptions.end()) {
        return;
    }
    // The service sends the state first. Applied to a tree that was built
    // from a configuration, or that holds what an earlier subscription left,
    // it must reach every binding it sets, also where a value equals the one
    // the tree holds already.
    const bool state = !found->second.stateDelivered;
    found->second.stateDelivered = true;
    toLoader(sequence, [address, data, state](DefaultContentLoader& target) {
        const RuntimeStateScope scope(state);
        target.notifyRuntimeDataUpdate(address, data);
    });
}

void LoaderChannel::deliverSubscriptionError(std::uint32_t sequence, const std::string& reason) {
    const auto it = subscriptions.find(sequence);
    if (it == subscriptions.end()) {
        return;
    }
    ZARVO_LOG_ERROR(logCategory, "Runtime data subscription to {} failed: {}", it->second.uri, reason);
    subscriptions.erase(it);
}

void LoaderChannel::toLoader(std::uint32_t sequence, std::function<void(DefaultContentLoader&)> deliver) {
    if (!loader) {
        return;
    }
    if (!dispatcher || !core || dispatcher == &core->getDispatcher()) {
        // Already on the loop, in the dispatcher's own turn.
        const auto keepAlive = shared_from_this();
        deliver(*loader);
        return;
    }
    std::weak_ptr<LoaderChannel> weak = shared_from_this();
    dispatcher->post([weak, sequence, deliver = std::move(deliver)]() {
        const auto self = weak.lock();
        if (self && self->loader && self->isLive(sequence)) {
            deliver(*self->loader);
        }
    });
}

}  // namespace client
}  // namespace zarvo
