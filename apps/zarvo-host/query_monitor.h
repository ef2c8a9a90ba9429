// A transport that passes everything on to the real one and tells the loop of
// each content query as it goes out and as its answer comes in, so that the
// inspector can show the block queries of a list and their round trips.
#ifndef ZARVO_HOST_QUERY_MONITOR_H
#define ZARVO_HOST_QUERY_MONITOR_H

#include <zarvo/client/transport.h>
#include <zarvo/message_dispatcher.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace zarvo::host {

/// One content query, as the monitor saw it.
struct QueryEvent {
    enum class Kind { Sent, Answered, Failed };
    Kind kind = Kind::Sent;
    std::uint64_t queryId = 0;
    std::string uri;
    int index = 0;         ///< the first row asked for
    int count = 0;         ///< rows asked for
    std::size_t rows = 0;  ///< rows answered
    /// From sending to the answer reaching the transport's receiver.
    std::chrono::microseconds roundTrip{0};
};

/// Queries sent and not yet answered that the monitor remembers; past it the
/// oldest is forgotten, and its answer shows no round trip.
constexpr std::size_t maxOpenMonitoredQueries = 4096;

class QueryMonitor : public client::Transport {
public:
    /// `listener` runs on the loop of `loop`, for every query sent and for
    /// every first answer or failure.
    QueryMonitor(std::shared_ptr<client::Transport> inner, ZvuMessageDispatcher& loop,
                 std::function<void(const QueryEvent&)> listener);
    ~QueryMonitor() override;

    void attach(std::shared_ptr<client::TransportReceiver> receiver) override;
    void detach() override;
    void sendQuery(std::uint64_t loaderId, std::uint64_t queryId, const ContentQueryArguments& arguments) override;
    void cancelQuery(std::uint64_t queryId) override;
    void subscribeRuntimeData(std::uint64_t loaderId, std::uint64_t subscriptionId, const std::string& uri) override;
    void unsubscribe(std::uint64_t subscriptionId) override;

    /// Forgets the listener; call on the loop before it goes.
    void stopListening();

private:
    class Receiver;
    using Clock = std::chrono::steady_clock;
    struct OpenQuery {
        std::string uri;
        int index;
        int count;
        Clock::time_point sent;
    };

    /// On the loop: the answer or failure of `queryId` came in at `arrived`.
    void onAnswer(std::uint64_t queryId, QueryEvent::Kind kind, std::size_t rows, Clock::time_point arrived);

    std::shared_ptr<client::Transport> inner;
    std::shared_ptr<Receiver> receiver;
    ZvuMessageDispatcher& loop;
    /// Made once and owned here alone; the receiver's posted work holds it
    /// weakly.
    const std::shared_ptr<std::function<void(const QueryEvent&)>> listener;
    std::map<std::uint64_t, OpenQuery> open;
};

}  // namespace zarvo::host

#endif
