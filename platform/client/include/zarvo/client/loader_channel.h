// One DefaultContentLoader's line to the client core: it numbers the loader's
// queries and subscriptions, remembers which are open so that a stop can
// cancel them, and hands the answers to the loader's observers.
//
// A query it has accepted is answered while the loader lives and does not
// stop: one asked while the connection is lost waits for it to come back,
// and one that fails for a passing reason (the connection went, the service
// is busy) is asked again, after a delay that grows with each failure, or at
// once when the connection comes back. A query the service refuses for good
// (a bad filter, an unknown table) is logged once as an error and dropped.
#ifndef ZARVO_CLIENT_LOADER_CHANNEL_H
#define ZARVO_CLIENT_LOADER_CHANNEL_H

#include <zarvo/client/transport.h>
#include <zarvo/content_query.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace zarvo {

class DefaultContentLoader;
class MessageDispatcher;

namespace client {

class ClientCore;

/// Whether a query that failed with `reason` may succeed when asked again:
/// the connection was down or went, the service was busy or timed out.
bool isPassingQueryFailure(const std::string& reason);

/// Everything here runs on the loop. Owned by its loader; the core knows it
/// by a plain pointer between registerLoader and close.
class LoaderChannel : public std::enable_shared_from_this<LoaderChannel> {
public:
    /// `dispatcher` is the one the loader was made with; answers reach the
    /// observers through it.
    LoaderChannel(ClientCore& core, DefaultContentLoader& loader, MessageDispatcher* dispatcher);
    ~LoaderChannel();
    LoaderChannel(const LoaderChannel&) = delete;
    LoaderChannel& operator=(const LoaderChannel&) = delete;

    std::uint64_t getLoaderId() const { return loaderId; }

    void load(const ContentQueryArguments& arguments);
    void subscribe(const std::string& uri);
    /// Cancels open queries and subscriptions; what they would still deliver
    /// is dropped.
    void stop();
    /// The loader goes away: stop, and let go of loader and core.
    void close();

    // From the core; `sequence` is this loader's part of the id.
    void deliverResult(std::uint32_t sequence, QueryResult&& result);
    void deliverQueryError(std::uint32_t sequence, const std::string& reason);
    void deliverInvalidation(std::uint32_t sequence);
    void deliverRuntimeUpdate(std::uint32_t sequence, const std::string& address, const std::string& data);
    void deliverSubscriptionError(std::uint32_t sequence, const std::string& reason);
    /// The transport was replaced: what was asked of the old one is gone.
    void forgetRequests();
    /// The connection is up again: queries that wait are sent now.
    void resendWaitingQueries();
    /// The core goes away before the loader: from now on nothing is sent.
    void detachFromCore();

    /// Accepted and neither answered, refused for good nor cancelled; those
    /// waiting to be asked again included.
    std::size_t openQueryCount() const { return openQueries.size(); }
    std::size_t subscriptionCount() const { return subscriptions.size(); }

private:
    /// Sent since the last stop, so still wanted.
    bool isLive(std::uint32_t sequence) const { return sequence >= liveFrom && sequence < nextSequence; }
    /// Runs `deliver` on the loader now, or through the loader's own
    /// dispatcher if it is not the core's, checking again there that
    /// `sequence` is still wanted.
    void toLoader(std::uint32_t sequence, std::function<void(DefaultContentLoader&)> deliver);

    struct OpenQuery {
        explicit OpenQuery(const ContentQueryArguments& arguments) : arguments(arguments) {}
        ContentQueryArguments arguments;
        /// On the transport now; otherwise it waits to be asked again.
        bool sent = false;
        unsigned failures = 0;
        /// The loop's timer that asks again, while one is set.
        std::shared_ptr<void> retryTimer;
    };
    void send(std::uint32_t sequence, OpenQuery& query);
    /// Asks `sequence` again after the back-off of its failures.
    void scheduleRetry(std::uint32_t sequence, OpenQuery& query);
    void onRetryDue(std::uint32_t sequence);
    void cancelRetry(OpenQuery& query);
    bool isConnectionLost() const;

    ClientCore* core;
    DefaultContentLoader* loader;
    MessageDispatcher* dispatcher;
    std::uint32_t loaderId;
    std::uint32_t nextSequence = 0;
    std::uint32_t liveFrom = 0;
    /// Open queries by sequence number, with what it takes to ask again.
    std::map<std::uint32_t, OpenQuery> openQueries;
    struct Subscription {
        std::string uri;
        /// The first update of a subscription is the state; see
        /// deliverRuntimeUpdate.
        bool stateDelivered = false;
    };
    std::map<std::uint32_t, Subscription> subscriptions;
};

}  // namespace client
}  // namespace zarvo

#endif
