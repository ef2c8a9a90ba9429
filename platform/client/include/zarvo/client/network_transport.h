// The transport to a real tethrix-service: one WebSocket connection, kept on
// an I/O thread of its own or on the loop (NetworkTransportOptions::loop), and
// speaking the protocol of docs/protocol.md.
//
//     auto context = zarvo::Context::instance(domain, nullptr);
//     auto options = zarvo::client::parseServiceUrl("ws://127.0.0.1:8080/tethrix");
//     zarvo::client::installTransport(*context, std::make_shared<zarvo::client::NetworkTransport>(*options));
//
// The connection is reported up (state 1) once the service has said hello,
// and lost (state 2) when it breaks or the first attempt fails. A peer that
// completes the WebSocket handshake but says no hello within helloTimeout
// counts as a failed attempt. While it is down the transport tries again,
// waiting longer after each failure; the wait starts short again only after
// a connection has stayed up for stableAfter, so that a service that says
// hello and drops the connection at once is not hammered. Requests made while it is down fail at once with a reason, and
// requests open when it breaks fail with one: the data sources start over
// when the connection is reported up again.
#ifndef ZARVO_CLIENT_NETWORK_TRANSPORT_H
#define ZARVO_CLIENT_NETWORK_TRANSPORT_H

#include <zarvo/client/transport.h>
#include <zarvo/message_dispatcher.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace zarvo {
namespace client {

struct NetworkTransportOptions {
    std::string host = "127.0.0.1";
    unsigned short port = 0;
    std::string path = "/tethrix";
    /// Wait before the first attempt to reconnect; doubled after each
    /// failure, up to maxReconnectDelay.
    std::chrono::milliseconds firstReconnectDelay{100};
    std::chrono::milliseconds maxReconnectDelay{5000};
    /// How long a connection must have been up for the next failure to
    /// start again at firstReconnectDelay.
    std::chrono::milliseconds stableAfter{10000};
    /// For the TCP connection, and again for the WebSocket handshake.
    std::chrono::milliseconds handshakeTimeout{10000};
    /// From the handshake to the service's hello.
    std::chrono::milliseconds helloTimeout{10000};
    /// Without any frame for this long the connection counts as broken;
    /// pings go out at half of it, and a live service answers them.
    std::chrono::milliseconds idleTimeout{20000};
    /// Bytes of requests waiting to be sent; a query or subscription past
    /// it fails at once ("too much waiting to be sent to the service").
    std::size_t maxPendingSendBytes = std::size_t(4) << 20;
    /// Answers and updates read and not yet delivered on the loop; past
    /// it no further frame is read until the loop has caught up.
    std::size_t maxPendingReports = 1000;
    /// The loop to run the connection on, in its waits, instead of an I/O
    /// thread of its own: a query then goes out from the loop's thread, and
    /// an answer wakes the loop itself, with no thread to wake on the way.
    /// The transport must then be attached, used and detached on that loop's
    /// thread, and detached before the loop goes.
    ZvuMessageDispatcher* loop = nullptr;
};

/// Reads "ws://HOST:PORT[/PATH]" or "HOST:PORT"; empty if it is neither.
std::optional<NetworkTransportOptions> parseServiceUrl(const std::string& url);

class NetworkTransport : public Transport {
public:
    explicit NetworkTransport(NetworkTransportOptions options);
    /// Detaches if that has not happened yet.
    ~NetworkTransport() override;
    NetworkTransport(const NetworkTransport&) = delete;
    NetworkTransport& operator=(const NetworkTransport&) = delete;

    /// Starts the I/O thread (or joins the loop) and the first connection
    /// attempt.
    void attach(std::shared_ptr<TransportReceiver> receiver) override;
    /// Closes the connection and joins the I/O thread (or leaves the loop).
    void detach() override;

    void sendQuery(std::uint64_t loaderId, std::uint64_t queryId, const ContentQueryArguments& arguments) override;
    void cancelQuery(std::uint64_t queryId) override;
    void subscribeRuntimeData(std::uint64_t loaderId, std::uint64_t subscriptionId, const std::string& uri) override;
    void unsubscribe(std::uint64_t subscriptionId) override;

private:
    class Link;
    NetworkTransportOptions options;
    std::shared_ptr<Link> link;
};

}  // namespace client
}  // namespace zarvo

#endif
