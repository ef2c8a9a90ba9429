#include <zarvo/client/loader_channel.h>

#include <zarvo/client/client_core.h>
#include <zarvo/content_loader.h>
#include <zarvo/log.h>

#include <utility>

namespace zarvo {
namespace client {

namespace {
const char* const logCategory = "tethrix-client";

std::string uriOf(const std::map<std::uint32_t, std::string>& requests, std::uint32_t sequence) {
    const auto it = requests.find(sequence);
    return it == requests.end() ? std::string("(a completed query)") : it->second;
}
}  // namespace

LoaderChannel::LoaderChannel(ClientCore& core, DefaultContentLoader& loader, MessageDispatcher* dispatcher)
    : core(&core), loader(&loader), dispatcher(dispatcher), loaderId(core.registerLoader(*this)) {}

LoaderChannel::~LoaderChannel() { close(); }

void LoaderChannel::load(const ContentQueryArguments& arguments) {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (!transport) {
        ZARVO_LOG_WARNING(logCategory, "No connection to the service: the query of {} is not sent",
                          arguments.getUri());
        return;
    }
    const std::uint32_t sequence = nextSequence++;
    openQueries.emplace(sequence, arguments.getUri());
    core->countSentQuery();
    transport->sendQuery(loaderId, RequestId::make(loaderId, sequence), arguments);
}

void LoaderChannel::subscribe(const std::string& uri) {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (!transport) {
        ZARVO_LOG_WARNING(logCategory, "No connection to the service: the subscription to {} is not sent", uri);
        return;
    }
    const std::uint32_t sequence = nextSequence++;
    subscriptions.emplace(sequence, uri);
    transport->subscribeRuntimeData(loaderId, RequestId::make(loaderId, sequence), uri);
}

void LoaderChannel::stop() {
    Transport* transport = core ? core->currentTransport() : nullptr;
    if (transport) {
        for (const auto& query : openQueries) {
            transport->cancelQuery(RequestId::make(loaderId, query.first));
        }
        for (const auto& subscription : subscriptions) {
            transport->unsubscribe(RequestId::make(loaderId, subscription.first));
        }
    }
    forgetRequests();
}

void LoaderChannel::forgetRequests() {
    openQueries.clear();
    subscriptions.clear();
    liveFrom = nextSequence;
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
    const std::string uri = uriOf(openQueries, sequence);
    openQueries.erase(sequence);
    const std::size_t columns = result.columns.size();
    if (columns == 0 ? !result.cells.empty() : result.cells.size() % columns != 0) {
        ZARVO_LOG_ERROR(logCategory, "Result of the query of {} dropped: {} values do not make rows of {} columns",
                        uri, result.cells.size(), columns);
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
    ZARVO_LOG_ERROR(logCategory, "Query of {} failed: {}", uriOf(openQueries, sequence), reason);
    openQueries.erase(sequence);
}

void LoaderChannel::deliverInvalidation(std::uint32_t sequence) {
    if (!isLive(sequence)) {
        return;
    }
    toLoader(sequence, [](DefaultContentLoader& target) { target.notifyContentInvalidated(); });
}

void LoaderChannel::deliverRuntimeUpdate(std::uint32_t sequence, const std::string& address,
                                         const std::string& data) {
    if (subscriptions.count(sequence) == 0) {
        return;
    }
    toLoader(sequence, [address, data](DefaultContentLoader& target) {
        target.notifyRuntimeDataUpdate(address, data);
    });
}

void LoaderChannel::deliverSubscriptionError(std::uint32_t sequence, const std::string& reason) {
    const auto it = subscriptions.find(sequence);
    if (it == subscriptions.end()) {
        return;
    }
    ZARVO_LOG_ERROR(logCategory, "Runtime data subscription to {} failed: {}", it->second, reason);
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
