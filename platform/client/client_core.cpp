#include <zarvo/client/client_core.h>

#include <zarvo/client.h>
#include <zarvo/client/loader_channel.h>

#include <atomic>
#include <utility>
#include <vector>

namespace zarvo {
namespace client {

/// The core's side of a transport: hands each report to the loop, where it
/// reaches the core if the core still wants it.
class LoopReceiver : public TransportReceiver, public std::enable_shared_from_this<LoopReceiver> {
public:
    LoopReceiver(ClientCore& core, MessageDispatcher& dispatcher) : core(&core), dispatcher(&dispatcher) {}

    /// From now on reports are dropped, also those already on their way.
    void detach() {
        std::lock_guard<std::mutex> lock(mutex);
        core = nullptr;
    }

    void onConnectionState(Connection::State state) override {
        toLoop([state](ClientCore& target) { target.deliverState(state); });
    }
    void onQueryResult(std::uint64_t queryId, QueryResult result) override {
        toLoop([queryId, result = std::move(result)](ClientCore& target) mutable {
            target.deliverResult(queryId, std::move(result));
        });
    }
    void onQueryError(std::uint64_t queryId, std::string reason) override {
        toLoop(
            [queryId, reason = std::move(reason)](ClientCore& target) { target.deliverQueryError(queryId, reason); });
    }
    void onQueryInvalidated(std::uint64_t queryId) override {
        toLoop([queryId](ClientCore& target) { target.deliverInvalidation(queryId); });
    }
    void onRuntimeUpdate(std::uint64_t subscriptionId, std::string address, std::string data) override {
        toLoop([subscriptionId, address = std::move(address), data = std::move(data)](ClientCore& target) {
            target.deliverRuntimeUpdate(subscriptionId, address, data);
        });
    }
    void onSubscriptionError(std::uint64_t subscriptionId, std::string reason) override {
        toLoop([subscriptionId, reason = std::move(reason)](ClientCore& target) {
            target.deliverSubscriptionError(subscriptionId, reason);
        });
    }
    void onResourceBaseUrl(std::string url) override {
        toLoop([url = std::move(url)](ClientCore& target) { target.setResourceBaseUrl(url); });
    }
    std::size_t pendingReports() const override { return pending.load(); }

private:
    template <typename Deliver>
    void toLoop(Deliver deliver) {
        // Held while posting, so that the dispatcher, which lives in the
        // client beside the core, cannot go away under a reporting thread.
        std::lock_guard<std::mutex> lock(mutex);
        if (!core) {
            return;
        }
        auto self = shared_from_this();
        ++pending;
        dispatcher->post([self, deliver = std::move(deliver)]() mutable {
            --self->pending;
            if (ClientCore* target = self->currentCore()) {
                deliver(*target);
            }
        });
    }

    ClientCore* currentCore() const {
        std::lock_guard<std::mutex> lock(mutex);
        return core;
    }

    mutable std::mutex mutex;
    ClientCore* core;
    MessageDispatcher* dispatcher;
    std::atomic<std::size_t> pending{0};
};

TransportReceiver::~TransportReceiver() = default;

std::size_t TransportReceiver::pendingReports() const {
    return 0;
}
Transport::~Transport() = default;

void installTransport(Context& context, std::shared_ptr<Transport> transport) {
    context.getClient()->core().installTransport(std::move(transport));
}

ClientCore::ClientCore(Client& client) : client(client) {}

ClientCore::~ClientCore() {
    detachTransport();
    for (const auto& entry : channels) {
        entry.second->detachFromCore();
    }
}

MessageDispatcher& ClientCore::getDispatcher() {
    return *client.getConnection()->getMessageDispatcher();
}

Connection::State ClientCore::getConnectionState() const {
    return client.getConnection()->getState();
}

void ClientCore::installTransport(std::shared_ptr<Transport> newTransport) {
    detachTransport();
    transport = std::move(newTransport);
    if (transport) {
        receiver = std::make_shared<LoopReceiver>(*this, getDispatcher());
        transport->attach(receiver);
    }
    Connection& connection = *client.getConnection();
    if (connection.getState() == Connection::StateConnected) {
        connection.setState(Connection::StateLost);
    }
}

void ClientCore::detachTransport() {
    if (receiver) {
        receiver->detach();
        receiver.reset();
    }
    if (!transport) {
        return;
    }
    const std::shared_ptr<Transport> old = std::move(transport);
    old->detach();
    for (const auto& entry : channels) {
        entry.second->forgetRequests();
    }
}

std::size_t ClientCore::openQueryCount() const {
    std::size_t count = 0;
    for (const auto& entry : channels) {
        count += entry.second->openQueryCount();
    }
    return count;
}

std::size_t ClientCore::subscriptionCount() const {
    std::size_t count = 0;
    for (const auto& entry : channels) {
        count += entry.second->subscriptionCount();
    }
    return count;
}

std::string ClientCore::getResourceBaseUrl() const {
    std::lock_guard<std::mutex> lock(baseUrlMutex);
    return resourceBaseUrl;
}

void ClientCore::setResourceBaseUrl(std::string url) {
    std::lock_guard<std::mutex> lock(baseUrlMutex);
    resourceBaseUrl = std::move(url);
}

std::uint32_t ClientCore::registerLoader(LoaderChannel& channel) {
    const std::uint32_t id = nextLoaderId++;
    channels.emplace(id, &channel);
    return id;
}

void ClientCore::unregisterLoader(std::uint32_t loaderId) {
    channels.erase(loaderId);
}

LoaderChannel* ClientCore::findChannel(std::uint64_t requestId) const {
    const auto it = channels.find(RequestId::loaderOf(requestId));
    return it == channels.end() ? nullptr : it->second;
}

void ClientCore::deliverState(Connection::State state) {
    if (state == Connection::StateConnected) {
        // Before the subscribers hear of it: one of them may let the core go.
        std::vector<std::uint32_t> ids;
        for (const auto& entry : channels) {
            ids.push_back(entry.first);
        }
        for (const std::uint32_t id : ids) {
            const auto found = channels.find(id);
            if (found != channels.end()) {
                found->second->resendWaitingQueries();
            }
        }
    }
    client.getConnection()->setState(state);
}

void ClientCore::deliverResult(std::uint64_t queryId, QueryResult&& result) {
    if (LoaderChannel* channel = findChannel(queryId)) {
        channel->deliverResult(RequestId::sequenceOf(queryId), std::move(result));
    }
}

void ClientCore::deliverQueryError(std::uint64_t queryId, const std::string& reason) {
    if (LoaderChannel* channel = findChannel(queryId)) {
        channel->deliverQueryError(RequestId::sequenceOf(queryId), reason);
    }
}

void ClientCore::deliverInvalidation(std::uint64_t queryId) {
    if (LoaderChannel* channel = findChannel(queryId)) {
        channel->deliverInvalidation(RequestId::sequenceOf(queryId));
    }
}

void ClientCore::deliverRuntimeUpdate(std::uint64_t subscriptionId, const std::string& address,
                                      const std::string& data) {
    if (LoaderChannel* channel = findChannel(subscriptionId)) {
        channel->deliverRuntimeUpdate(RequestId::sequenceOf(subscriptionId), address, data);
    }
}

void ClientCore::deliverSubscriptionError(std::uint64_t subscriptionId, const std::string& reason) {
    if (LoaderChannel* channel = findChannel(subscriptionId)) {
        channel->deliverSubscriptionError(RequestId::sequenceOf(subscriptionId), reason);
    }
}

}  // namespace client
}  // namespace zarvo
