// The machinery behind a Client: it sends the loaders' queries and
// subscriptions through the installed transport and routes what the service
// answers back to the loader that asked, on the loop.
//
// Routing needs no table of queries: every query and subscription id carries
// its loader's id in the high 32 bits and the loader's own sequence number in
// the low 32 bits. A loader drops what belongs to a sequence number from
// before its last stop, so an answer that arrives late, for a loader that has
// stopped or gone, is dropped on the loop without a trace.
#ifndef ZARVO_CLIENT_CLIENT_CORE_H
#define ZARVO_CLIENT_CLIENT_CORE_H

#include <zarvo/client/transport.h>
#include <zarvo/connection.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace zarvo {

class Client;

namespace client {

class LoaderChannel;
class LoopReceiver;

/// Query and subscription ids: the loader and its sequence number.
struct RequestId {
    static std::uint64_t make(std::uint32_t loaderId, std::uint32_t sequence) {
        return (static_cast<std::uint64_t>(loaderId) << 32) | sequence;
    }
    static std::uint32_t loaderOf(std::uint64_t id) { return static_cast<std::uint32_t>(id >> 32); }
    static std::uint32_t sequenceOf(std::uint64_t id) { return static_cast<std::uint32_t>(id); }
};

/// How the loaders see their queries answered; see loader_channel.h.
struct QueryRetryPolicy {
    /// Wait before a query that failed for a passing reason is asked again;
    /// doubled after each further failure of it, up to maxRetryDelay.
    std::chrono::milliseconds firstRetryDelay{100};
    std::chrono::milliseconds maxRetryDelay{5000};
    /// Queries one loader may have open, waiting ones included; a further
    /// query is refused with an error.
    std::size_t maxOpenQueriesPerLoader = 64;
};

class ClientCore {
public:
    /// `client` owns the core; its dispatcher and connection outlive it.
    explicit ClientCore(Client& client);
    ~ClientCore();
    ClientCore(const ClientCore&) = delete;
    ClientCore& operator=(const ClientCore&) = delete;

    /// Makes `transport` (null: none) the way to the service, on the loop.
    /// A transport installed before replaces the old one: the old one is
    /// detached, and what the loaders had asked of it is forgotten (nothing
    /// more arrives for it, and nothing is sent again). If the connection was
    /// up, it is reported lost, so that users start over when the new
    /// transport reports the connection up.
    void installTransport(std::shared_ptr<Transport> transport);
    std::shared_ptr<Transport> getTransport() const { return transport; }

    /// Loaders alive now.
    std::size_t liveLoaderCount() const { return channels.size(); }
    /// Queries accepted and neither answered, refused for good nor
    /// cancelled, those waiting to be asked again included.
    std::size_t openQueryCount() const;
    /// Runtime data subscriptions in force.
    std::size_t subscriptionCount() const;
    /// Queries handed to a transport since the core was made; programs
    /// report it to show what scrolling or a reload cost.
    std::uint64_t sentQueryCount() const { return queriesSent; }

    /// Safe from any thread: image loads resolve URLs on loader threads.
    std::string getResourceBaseUrl() const;
    void setResourceBaseUrl(std::string url);

    MessageDispatcher& getDispatcher();
    Connection::State getConnectionState() const;

    const QueryRetryPolicy& getQueryRetryPolicy() const { return retryPolicy; }
    /// On the loop; applies to failures from now on.
    void setQueryRetryPolicy(const QueryRetryPolicy& policy) { retryPolicy = policy; }

    // Used by the loaders' channels, on the loop.
    std::uint32_t registerLoader(LoaderChannel& channel);
    void countSentQuery() { ++queriesSent; }
    void unregisterLoader(std::uint32_t loaderId);
    /// Null while no transport is installed.
    Transport* currentTransport() const { return transport.get(); }

    // Used by the receiver, on the loop.
    void deliverState(Connection::State state);
    void deliverResult(std::uint64_t queryId, QueryResult&& result);
    void deliverQueryError(std::uint64_t queryId, const std::string& reason);
    void deliverInvalidation(std::uint64_t queryId);
    void deliverRuntimeUpdate(std::uint64_t subscriptionId, const std::string& address, const std::string& data);
    void deliverSubscriptionError(std::uint64_t subscriptionId, const std::string& reason);

private:
    LoaderChannel* findChannel(std::uint64_t requestId) const;
    void detachTransport();

    Client& client;
    std::shared_ptr<Transport> transport;
    std::shared_ptr<LoopReceiver> receiver;
    std::unordered_map<std::uint32_t, LoaderChannel*> channels;
    std::uint32_t nextLoaderId = 1;
    std::uint64_t queriesSent = 0;
    QueryRetryPolicy retryPolicy;
    mutable std::mutex baseUrlMutex;
    std::string resourceBaseUrl;
};

}  // namespace client
}  // namespace zarvo

#endif
