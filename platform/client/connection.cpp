#include <zarvo/connection.h>

#include <zarvo/message_dispatcher.h>

#include <utility>
#include <vector>

namespace zarvo {

void MessageDispatcher::post(std::function<void()> task) {
    loop->post(std::move(task));
}

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

Connection::~Connection() {
    *alive = false;
}

void Connection::setState(State newState) {
    state = newState;
    // A callback may add or remove subscriptions, let go of tokens, or destroy
    // the context that owns this connection. So the walk goes over the ids as
    // they were, looks each one up again before its call, and holds the
    // subscription only for the call itself: one removed or let go since is
    // skipped, and a running callback stays alive even if its own token goes.
    std::vector<std::uint64_t> ids;
    ids.reserve(subscriptions.size());
    for (const auto& entry : subscriptions) {
        ids.push_back(entry.first);
    }
    const std::shared_ptr<bool> stillAlive = alive;
    for (const std::uint64_t id : ids) {
        const auto found = subscriptions.find(id);
        if (found == subscriptions.end()) {
            continue;
        }
        const std::shared_ptr<Subscription> live = found->second.lock();
        if (live && live->callback) {
            live->callback(newState);
        }
        if (!*stillAlive) {
            return;
        }
    }
}

}  // namespace zarvo
