#include "query_monitor.h"

#include <mutex>
#include <utility>

namespace zarvo::host {

/// Stands between the real transport and the client's receiver: tells the
/// loop of an answer first, then passes it on, so that the loop sees the
/// event before the result reaches the data source.
class QueryMonitor::Receiver : public client::TransportReceiver {
public:
    Receiver(std::shared_ptr<client::TransportReceiver> next, QueryMonitor& monitor)
        : next(std::move(next)),
          monitor(&monitor),
          alive(monitor.listener),
          loop(&monitor.loop) {}

    void forget() {
        std::lock_guard<std::mutex> lock(mutex);
        monitor = nullptr;
    }

    void onConnectionState(Connection::State state) override { next->onConnectionState(state); }
    void onQueryResult(std::uint64_t queryId, client::QueryResult result) override {
        const std::size_t columns = result.columns.size();
        note(queryId, QueryEvent::Kind::Answered, columns == 0 ? 0 : result.cells.size() / columns);
        next->onQueryResult(queryId, std::move(result));
    }
    void onQueryError(std::uint64_t queryId, std::string reason) override {
        note(queryId, QueryEvent::Kind::Failed, 0);
        next->onQueryError(queryId, std::move(reason));
    }
    void onQueryInvalidated(std::uint64_t queryId) override { next->onQueryInvalidated(queryId); }
    void onRuntimeUpdate(std::uint64_t subscriptionId, std::string address, std::string data) override {
        next->onRuntimeUpdate(subscriptionId, std::move(address), std::move(data));
    }
    void onSubscriptionError(std::uint64_t subscriptionId, std::string reason) override {
        next->onSubscriptionError(subscriptionId, std::move(reason));
    }
    void onResourceBaseUrl(std::string url) override { next->onResourceBaseUrl(std::move(url)); }

private:
    void note(std::uint64_t queryId, QueryEvent::Kind kind, std::size_t rows) {
        const Clock::time_point arrived = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        if (monitor == nullptr) {
            return;
        }
        // The listener lives and dies with the monitor, both on the loop:
        // if it is there when the work runs, so is the monitor.
        QueryMonitor* target = monitor;
        loop->post([alive = alive, target, queryId, kind, rows, arrived]() {
            if (alive.lock()) {
                target->onAnswer(queryId, kind, rows, arrived);
            }
        });
    }

    std::shared_ptr<client::TransportReceiver> next;
    std::mutex mutex;
    QueryMonitor* monitor;
    std::weak_ptr<std::function<void(const QueryEvent&)>> alive;
    ZvuMessageDispatcher* loop;
};

QueryMonitor::QueryMonitor(std::shared_ptr<client::Transport> inner, ZvuMessageDispatcher& loop,
                           std::function<void(const QueryEvent&)> listener)
    : inner(std::move(inner)),
      loop(loop),
      listener(std::make_shared<std::function<void(const QueryEvent&)>>(std::move(listener))) {}

QueryMonitor::~QueryMonitor() {
    if (receiver) {
        receiver->forget();
    }
}

void QueryMonitor::attach(std::shared_ptr<client::TransportReceiver> next) {
    receiver = std::make_shared<Receiver>(std::move(next), *this);
    inner->attach(receiver);
}

void QueryMonitor::detach() {
    inner->detach();
    if (receiver) {
        receiver->forget();
    }
}

void QueryMonitor::stopListening() {
    *listener = nullptr;
}

void QueryMonitor::sendQuery(std::uint64_t loaderId, std::uint64_t queryId, const ContentQueryArguments& arguments) {
    if (open.size() >= maxOpenMonitoredQueries) {
        open.erase(open.begin());
    }
    open[queryId] = OpenQuery{arguments.getUri(), arguments.getIndex(), arguments.getCount(), Clock::now()};
    if (*listener) {
        QueryEvent event;
        event.queryId = queryId;
        event.uri = arguments.getUri();
        event.index = arguments.getIndex();
        event.count = arguments.getCount();
        (*listener)(event);
    }
    inner->sendQuery(loaderId, queryId, arguments);
}

void QueryMonitor::onAnswer(std::uint64_t queryId, QueryEvent::Kind kind, std::size_t rows, Clock::time_point arrived) {
    const auto found = open.find(queryId);
    // A later result of the same query (fresh rows) is no round trip.
    if (found == open.end()) {
        return;
    }
    QueryEvent event;
    event.kind = kind;
    event.queryId = queryId;
    event.uri = found->second.uri;
    event.index = found->second.index;
    event.count = found->second.count;
    event.rows = rows;
    event.roundTrip = std::chrono::duration_cast<std::chrono::microseconds>(arrived - found->second.sent);
    open.erase(found);
    if (*listener) {
        (*listener)(event);
    }
}

void QueryMonitor::cancelQuery(std::uint64_t queryId) {
    open.erase(queryId);
    inner->cancelQuery(queryId);
}

void QueryMonitor::subscribeRuntimeData(std::uint64_t loaderId, std::uint64_t subscriptionId, const std::string& uri) {
    inner->subscribeRuntimeData(loaderId, subscriptionId, uri);
}

void QueryMonitor::unsubscribe(std::uint64_t subscriptionId) {
    inner->unsubscribe(subscriptionId);
}

}  // namespace zarvo::host
