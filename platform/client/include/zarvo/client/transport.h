// The line between the client library and a service.
//
// The client core hands every query and runtime data subscription of the
// loaders to a Transport, and the transport reports what the service says
// through a TransportReceiver. The core calls a transport on the loop thread
// only; a transport may report from any thread (an I/O thread, a callback of
// its network library, or the loop itself), because the receiver hands every
// report to the loop before anything else sees it. So no observer of a loader
// and no state subscriber ever runs on another thread, and no answer is
// delivered from within the call that sent the query.
//
// A program chooses the transport of a domain before its data sources need
// the service:
//
//     auto context = zarvo::Context::instance(domain, nullptr);
//     zarvo::client::installTransport(*context, makeMyTransport(url));
//
// Tests install the scripted service of the test kit instead.
#ifndef ZARVO_CLIENT_TRANSPORT_H
#define ZARVO_CLIENT_TRANSPORT_H

#include <zarvo/connection.h>
#include <zarvo/content_query.h>

#include <boost/any.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class Context;

namespace client {

/// A service's answer to one query.
struct QueryResult {
    /// Index of the first row within the whole content.
    std::size_t startIndex = 0;
    /// The columns, normally those of the query in the query's order.
    std::vector<ContentResult::Column> columns;
    /// The rows one after another, one value per column, each of the type
    /// that its column names (see ContentResult).
    ContentCells cells;
};

/// Where a transport reports to. Every operation may be called from any
/// thread, at any time after Transport::attach; reports about queries and
/// subscriptions that are no longer wanted (their loader stopped or went
/// away) are dropped on the loop, so a transport need not track that.
class TransportReceiver {
public:
    virtual ~TransportReceiver();

    /// The connection's new state; every report is delivered, also a repeat.
    virtual void onConnectionState(Connection::State state) = 0;
    /// The answer to `queryId`. The query is complete with it, but further
    /// results for the same query still reach its loader until the loader
    /// stops (a service may send fresh rows when the content changes).
    virtual void onQueryResult(std::uint64_t queryId, QueryResult result) = 0;
    /// The service could not answer `queryId`; `reason` says why. Logged,
    /// and the loader gets nothing.
    virtual void onQueryError(std::uint64_t queryId, std::string reason) = 0;
    /// What `queryId` delivered is no longer current.
    virtual void onQueryInvalidated(std::uint64_t queryId) = 0;
    /// An update of the runtime data subscribed to as `subscriptionId`.
    virtual void onRuntimeUpdate(std::uint64_t subscriptionId, std::string address, std::string data) = 0;
    /// The service refused or ended the subscription; logged.
    virtual void onSubscriptionError(std::uint64_t subscriptionId, std::string reason) = 0;
    /// The base against which relative resource URLs are resolved (see
    /// Client::resolveResourceUrl); empty to have none.
    virtual void onResourceBaseUrl(std::string url) = 0;
    /// Reports handed over and not yet delivered on the loop. A transport
    /// that reads from a network reads no further while this is high, so
    /// that a service faster than the loop cannot fill the memory.
    virtual std::size_t pendingReports() const;
};

/// A way to the service. Called by the client core on the loop thread only.
///
/// Ids: a query id and a subscription id are unique within a client; both
/// name the loader that sent them (`loaderId`), which a service may use to
/// group its work. A transport sends each id back unchanged in its reports.
class Transport {
public:
    virtual ~Transport();

    /// The transport is installed; from now on it reports to `receiver`
    /// (including its current connection state, if it knows one).
    virtual void attach(std::shared_ptr<TransportReceiver> receiver) = 0;
    /// The transport is being replaced or the client goes away: it is not
    /// called again and should release its connection. Reports after this
    /// are dropped.
    virtual void detach() = 0;

    virtual void sendQuery(std::uint64_t loaderId, std::uint64_t queryId, const ContentQueryArguments& arguments) = 0;
    /// The loader no longer wants an answer to `queryId`.
    virtual void cancelQuery(std::uint64_t queryId) = 0;
    virtual void subscribeRuntimeData(std::uint64_t loaderId, std::uint64_t subscriptionId, const std::string& uri) = 0;
    virtual void unsubscribe(std::uint64_t subscriptionId) = 0;
};

/// Makes `transport` the way of `context`'s client to the service. Call it on
/// the loop thread, best before the first loader is made; see
/// ClientCore::installTransport for what a replacement does.
void installTransport(Context& context, std::shared_ptr<Transport> transport);

}  // namespace client
}  // namespace zarvo

#endif
