// A service that a test scripts: it sets the connection's state, sees every
// query and subscription that loaders send, and answers them, always on the
// loop (the answer arrives when the test runs the loop).
#ifndef ZARVO_TESTKIT_SCRIPTED_SERVICE_H
#define ZARVO_TESTKIT_SCRIPTED_SERVICE_H

#include <zarvo/client.h>
#include <zarvo/content_query.h>

#include <boost/any.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {
namespace testkit {

struct RecordedQuery {
    std::uint64_t loaderId;  ///< DefaultContentLoader::getLoaderId of the sender
    std::uint64_t queryId;   ///< unique per query
    std::string uri;
    std::vector<std::string> columns;
    std::string filter;
    int index;
    int count;
    std::string sort;
};

struct RecordedSubscription {
    std::uint64_t loaderId;
    std::uint64_t subscriptionId;
    std::string uri;
};

/// A table that the service answers queries for by itself.
struct ServedTable {
    std::vector<ContentResult::Column> columns;
    /// Number of rows of the table.
    std::size_t rowCount = 0;
    /// The value of row `row`, column `column` (by position in `columns`).
    std::function<boost::any(std::size_t row, std::size_t column)> value;
};

class ScriptedService {
public:
    /// Puts itself between the domain's client library context and the
    /// service. The connection stays in state 0 until setState.
    explicit ScriptedService(Domain& domain);
    ~ScriptedService();
    ScriptedService(const ScriptedService&) = delete;
    ScriptedService& operator=(const ScriptedService&) = delete;

    std::shared_ptr<Context> context() const;

    /// Sets the connection's state, delivered on the loop.
    void setState(Connection::State state);

    /// Every query sent since the start or the last takeQueries, in order.
    const std::vector<RecordedQuery>& queries() const;
    std::vector<RecordedQuery> takeQueries();
    /// Queries sent and neither answered nor cancelled (by a loader's stop).
    std::size_t openQueryCount() const;

    /// Answers `query` with rows (each one value per column) starting at
    /// `startIndex`. Delivered on the loop; dropped there if the loader has
    /// been stopped or destroyed since. A query may be answered again (as a
    /// service does when its content changes); each answer is delivered.
    void reply(const RecordedQuery& query, std::vector<ContentResult::Column> columns,
               std::vector<std::vector<boost::any>> rows, std::size_t startIndex);
    /// Reports that the service could not answer `query`: the client library
    /// logs it with the query's URI and `reason`, and the loader gets nothing.
    void fail(const RecordedQuery& query, const std::string& reason);
    /// Sends the loader that made `query` an invalidation, on the loop.
    void invalidate(const RecordedQuery& query);

    /// From now on answers every query for `uri` by itself, on the next loop
    /// turn: the rows [index, index + count) of `table` (count 0: all), with
    /// the query's columns in the query's order. A column that the table
    /// lacks comes back as a string column of empty strings.
    void serve(const std::string& uri, ServedTable table);

    const std::vector<RecordedSubscription>& subscriptions() const;
    /// Subscriptions not yet ended by their loader's stop.
    std::size_t activeSubscriptionCount() const;
    /// Sends runtime data update text to the loader of `subscription`.
    void pushRuntimeUpdate(const RecordedSubscription& subscription, const std::string& address,
                           const std::string& data);

    /// The base URL against which Client::resolveResourceUrl resolves
    /// relative URLs, delivered on the loop.
    void setResourceBaseUrl(const std::string& url);

    /// Loaders alive now.
    std::size_t liveLoaderCount() const;
    /// Acquire and release counts of the service "Content".
    Context::ServiceStatistics contentStatistics() const;

private:
    struct State;
    std::shared_ptr<State> state;
};

}  // namespace testkit
}  // namespace zarvo

#endif
