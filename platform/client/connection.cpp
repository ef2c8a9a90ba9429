#include <zarvo/connection.h>

#include <zarvo/message_dispatcher.h>

#include <utility>
#include <vector>

namespace zarvo {

void MessageDispatcher::post(std::function<void()> task) { loop->post(std::move(task)); }

std::shared_ptr<void> Connection::addStateSubscription(std::function<void(State)> callback) {
    // Forget subscriptions whose holders let go without removing them.
    for (auto it = subscriptions.begin(); it != subscriptions.end();) {
        it = it->second.expired() ? subscriptions.erase(it) : std::next(it);
    }
    auto subscription = std::make_shared<Subscription>();
    subscription->callback = std::move(callback);
    subscriptions.emplace(nextSubscription++, subscription);
    return subscription;
}

std::size_t Connection::getSubscriptionCount() const {
    std::size_t live = 0;
    for (const auto& entry : subscriptions) {
        live += entry.second.expired() ? 0 : 1;
    }
    return live;
}

void Connection::removeStateSubscription(std::shared_ptr<void> token) {
    if (!token) {
        return;
    }
    for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
        if (it->second.lock() == token) {
            subscriptions.erase(it);
            return;
        }
    }
}

void Connection::setState(State newState) {
    state = newState;
    // A callback may add or remove subscriptions: walk a copy, and skip what
    // was removed since. The copy also keeps a running callback alive when
    // its own subscription is removed from within it.
    std::vector<std::pair<std::uint64_t, std::shared_ptr<Subscription>>> current;
    for (const auto& entry : subscriptions) {
        if (std::shared_ptr<Subscription> live = entry.second.lock()) {
            current.emplace_back(entry.first, std::move(live));
        }
    }
    for (const auto& entry : current) {
        if (subscriptions.count(entry.first) == 0) {
            continue;
        }
        if (entry.second->callback) {
            entry.second->callback(newState);
        }
    }
}

}  // namespace zarvo
