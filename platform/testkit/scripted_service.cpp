#include <zarvo/testkit/scripted_service.h>

#include <zarvo/client/client_core.h>
#include <zarvo/client/transport.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace zarvo {
namespace testkit {

/// The transport that the scripted service installs, and all its records.
/// The client core owns it; it only looks at the context, so that the two do
/// not keep each other alive.
struct ScriptedService::State : client::Transport {
    struct Served {
        ServedTable table;
        std::unordered_map<std::string, std::size_t> positions;
    };

    std::weak_ptr<Context> context;
    std::shared_ptr<client::TransportReceiver> receiver;
    std::vector<RecordedQuery> queries;
    std::unordered_set<std::uint64_t> openQueries;
    std::vector<RecordedSubscription> subscriptions;
    std::unordered_set<std::uint64_t> activeSubscriptions;
    std::map<std::string, Served> served;

    void attach(std::shared_ptr<client::TransportReceiver> newReceiver) override { receiver = std::move(newReceiver); }
    void detach() override { receiver.reset(); }

    void sendQuery(std::uint64_t loaderId, std::uint64_t queryId, const ContentQueryArguments& arguments) override {
        queries.push_back(RecordedQuery{loaderId, queryId, arguments.getUri(), arguments.getColumns(),
                                        arguments.getFilter(), arguments.getIndex(), arguments.getCount(),
                                        arguments.getSort()});
        const auto table = served.find(arguments.getUri());
        if (table == served.end()) {
            openQueries.insert(queryId);
            return;
        }
        answer(queryId, slice(table->second, arguments));
    }
    void cancelQuery(std::uint64_t queryId) override { openQueries.erase(queryId); }
    void subscribeRuntimeData(std::uint64_t loaderId, std::uint64_t subscriptionId, const std::string& uri) override {
        subscriptions.push_back(RecordedSubscription{loaderId, subscriptionId, uri});
        activeSubscriptions.insert(subscriptionId);
    }
    void unsubscribe(std::uint64_t subscriptionId) override { activeSubscriptions.erase(subscriptionId); }

    /// Rows [index, index + count) of the table (count 0: to the end), with
    /// the query's columns; only these cells are ever built.
    static client::QueryResult slice(const Served& source, const ContentQueryArguments& arguments) {
        const ServedTable& table = source.table;
        const std::size_t first =
            std::min<std::size_t>(static_cast<std::size_t>(std::max(arguments.getIndex(), 0)), table.rowCount);
        const std::size_t wanted = static_cast<std::size_t>(std::max(arguments.getCount(), 0));
        const std::size_t end = wanted == 0 ? table.rowCount : std::min(table.rowCount, first + wanted);

        client::QueryResult result;
        result.startIndex = first;
        std::vector<std::size_t> positions;
        for (const std::string& name : arguments.getColumns()) {
            const auto found = source.positions.find(name);
            if (found == source.positions.end()) {
                positions.push_back(table.columns.size());
                result.columns.push_back({name, ContentDataTypeString});
            } else {
                positions.push_back(found->second);
                result.columns.push_back({name, table.columns[found->second].type});
            }
        }
        result.cells.reserve((end - first) * positions.size());
        for (std::size_t row = first; row < end; ++row) {
            for (std::size_t position : positions) {
                if (position < table.columns.size()) {
                    result.cells.push(table.value(row, position));
                } else {
                    result.cells.pushString("", 0);
                }
            }
        }
        return result;
    }

    void answer(std::uint64_t queryId, client::QueryResult result) {
        openQueries.erase(queryId);
        if (receiver) {
            receiver->onQueryResult(queryId, std::move(result));
        }
    }

    client::ClientCore* core() const {
        const auto live = context.lock();
        return live ? &live->getClient()->core() : nullptr;
    }
};

ScriptedService::ScriptedService(Domain& domain) : state(std::make_shared<State>()) {
    const auto shared = Context::instance(domain, nullptr);
    state->context = shared;
    client::installTransport(*shared, state);
}

ScriptedService::~ScriptedService() = default;

std::shared_ptr<Context> ScriptedService::context() const {
    return state->context.lock();
}

void ScriptedService::setState(Connection::State connectionState) {
    if (state->receiver) {
        state->receiver->onConnectionState(connectionState);
    }
}

const std::vector<RecordedQuery>& ScriptedService::queries() const {
    return state->queries;
}

std::vector<RecordedQuery> ScriptedService::takeQueries() {
    std::vector<RecordedQuery> taken;
    taken.swap(state->queries);
    return taken;
}

std::size_t ScriptedService::openQueryCount() const {
    return state->openQueries.size();
}

void ScriptedService::reply(const RecordedQuery& query, std::vector<ContentResult::Column> columns,
                            std::vector<std::vector<boost::any>> rows, std::size_t startIndex) {
    client::QueryResult result;
    result.startIndex = startIndex;
    result.cells.reserve(rows.size() * columns.size());
    for (auto& row : rows) {
        if (row.size() != columns.size()) {
            throw std::invalid_argument("ScriptedService::reply: a row has " + std::to_string(row.size()) +
                                        " values for " + std::to_string(columns.size()) + " columns");
        }
        for (auto& value : row) {
            result.cells.push(std::move(value));
        }
    }
    result.columns = std::move(columns);
    state->answer(query.queryId, std::move(result));
}

void ScriptedService::fail(const RecordedQuery& query, const std::string& reason) {
    state->openQueries.erase(query.queryId);
    if (state->receiver) {
        state->receiver->onQueryError(query.queryId, reason);
    }
}

void ScriptedService::invalidate(const RecordedQuery& query) {
    if (state->receiver) {
        state->receiver->onQueryInvalidated(query.queryId);
    }
}

void ScriptedService::serve(const std::string& uri, ServedTable table) {
    if (!table.value) {
        throw std::invalid_argument("ScriptedService::serve: the table for " + uri + " has no value function");
    }
    State::Served entry;
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        entry.positions.emplace(table.columns[i].name, i);
    }
    entry.table = std::move(table);
    state->served[uri] = std::move(entry);
}

const std::vector<RecordedSubscription>& ScriptedService::subscriptions() const {
    return state->subscriptions;
}

std::size_t ScriptedService::activeSubscriptionCount() const {
    return state->activeSubscriptions.size();
}

void ScriptedService::pushRuntimeUpdate(const RecordedSubscription& subscription, const std::string& address,
                                        const std::string& data) {
    if (state->receiver) {
        state->receiver->onRuntimeUpdate(subscription.subscriptionId, address, data);
    }
}

void ScriptedService::setResourceBaseUrl(const std::string& url) {
    if (state->receiver) {
        state->receiver->onResourceBaseUrl(url);
    }
}

std::size_t ScriptedService::liveLoaderCount() const {
    const client::ClientCore* core = state->core();
    return core ? core->liveLoaderCount() : 0;
}

Context::ServiceStatistics ScriptedService::contentStatistics() const {
    const auto live = state->context.lock();
    return live ? live->getServiceStatistics("Content") : Context::ServiceStatistics();
}

}  // namespace testkit
}  // namespace zarvo
