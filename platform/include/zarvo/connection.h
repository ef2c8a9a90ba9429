// The service client library's connection to the service and its dispatcher.
#ifndef ZARVO_CONNECTION_H
#define ZARVO_CONNECTION_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace zarvo {

class ZvuMessageDispatcher;

/// The library's dispatcher. Everything it delivers (connection states,
/// results, runtime updates) runs through it on the engine's loop thread.
class MessageDispatcher {
public:
    explicit MessageDispatcher(ZvuMessageDispatcher* loop) : loop(loop) {}
    /// Queues `task` on the loop. Callable from any thread.
    void post(std::function<void()> task);
    ZvuMessageDispatcher* getLoop() const { return loop; }

private:
    ZvuMessageDispatcher* loop;
};

class Connection {
public:
    /// Only 1 and 2 carry meaning for users of the library.
    enum State : int {
        StateNotConnected = 0,  ///< before the first connection attempt ended
        StateConnected = 1,     ///< up: services can be used
        StateLost = 2,          ///< lost: the library tries to reconnect
    };

    explicit Connection(MessageDispatcher* dispatcher) : dispatcher(dispatcher) {}
    /// A delivery under way when the connection goes (a subscriber destroyed
    /// its context) calls nobody after that.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    State getState() const { return state; }
    /// Calls `callback` at every later change of state, on the loop. The
    /// subscription lasts while the token is held: a subscriber that is
    /// destroyed without removing it is not called any more.
    std::shared_ptr<void> addStateSubscription(std::function<void(State)> callback);
    /// Ends a subscription; no further call of its callback follows, even
    /// within the delivery under way. A null token does nothing.
    void removeStateSubscription(std::shared_ptr<void> token);
    MessageDispatcher* getMessageDispatcher() { return dispatcher; }

    /// Library side, on the loop: stores `newState` and tells every
    /// subscriber, in order of subscribing. Every call is delivered, also a
    /// repeat of the current state. A subscription removed, or whose token is
    /// let go, during the delivery is not called from then on.
    void setState(State newState);
    /// Subscriptions whose token is still held.
    std::size_t getSubscriptionCount() const;

private:
    struct Subscription {
        std::function<void(State)> callback;
    };
    MessageDispatcher* dispatcher;
    State state = StateNotConnected;
    std::map<std::uint64_t, std::weak_ptr<Subscription>> subscriptions;
    std::uint64_t nextSubscription = 0;
    /// Cleared by the destructor; a delivery holds a copy to notice it.
    std::shared_ptr<bool> alive = std::make_shared<bool>(true);
};

}  // namespace zarvo

#endif
