#include "runtime_data_hub.h"

#include <tethrix/protocol/runtime_state.h>
#include <tethrix/protocol/runtime_update.h>

#include <algorithm>
#include <stdexcept>

namespace tethrix::service {

namespace {

std::string subscribers(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " subscriber" : " subscribers");
}

}  // namespace

void RuntimeDataHub::add(const std::string& name, RuntimeNode::Ptr root)
{
    if (!trees.emplace(name, Tree{std::move(root), {}}).second) {
        throw std::invalid_argument("runtime data " + protocol::quoted(runtimeDataScheme + name) + " is given twice");
    }
}

std::size_t RuntimeDataHub::subscriberCount(const std::string& name) const
{
    auto tree = trees.find(name);
    return tree == trees.end() ? 0 : tree->second.subscriptions.size();
}

std::optional<std::string> RuntimeDataHub::subscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id,
                                                     const std::string& uri)
{
    const std::string scheme = runtimeDataScheme;
    if (uri.rfind(scheme, 0) != 0) {
        return protocol::quoted(uri) + " is not a runtime data URI (" + scheme + "<name>)";
    }
    const std::string name = uri.substr(scheme.size());
    auto tree = trees.find(name);
    if (tree == trees.end()) return unknown(name);
    tree->second.subscriptions.push_back({&subscriber, id});
    subscriber.deliverUpdate(id, std::string(), protocol::writeRuntimeState<RuntimeTreeModel>(*tree->second.root));
    return std::nullopt;
}

void RuntimeDataHub::unsubscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id)
{
    for (auto& [name, tree] : trees) {
        auto& list = tree.subscriptions;
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [&](const Subscription& s) { return s.subscriber == &subscriber && s.id == id; }),
                   list.end());
    }
}

void RuntimeDataHub::unsubscribeAll(RuntimeDataSubscriber& subscriber)
{
    for (auto& [name, tree] : trees) {
        auto& list = tree.subscriptions;
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [&](const Subscription& s) { return s.subscriber == &subscriber; }),
                   list.end());
    }
}

PublishOutcome RuntimeDataHub::publish(const std::string& name, std::string_view text)
{
    auto tree = trees.find(name);
    if (tree == trees.end()) return {PublishOutcome::Status::unknownName, unknown(name)};
    if (auto fault = protocol::applyRuntimeUpdate<RuntimeTreeModel>(text, *tree->second.root)) {
        return {PublishOutcome::Status::refused, fault->message("update refused")};
    }
    const std::string data(text);
    // Delivering only queues a frame, so no subscriber can come or go while
    // this runs; the copy makes that independent of the sessions.
    const auto receivers = tree->second.subscriptions;
    for (const Subscription& s : receivers) s.subscriber->deliverUpdate(s.id, std::string(), data);
    return {PublishOutcome::Status::published,
            std::string("published to ") + runtimeDataScheme + name + " (" + subscribers(receivers.size()) + ")"};
}

std::optional<std::string> RuntimeDataHub::state(const std::string& name) const
{
    auto tree = trees.find(name);
    if (tree == trees.end()) return std::nullopt;
    return protocol::writeRuntimeState<RuntimeTreeModel>(*tree->second.root);
}

std::string RuntimeDataHub::unknown(const std::string& name) const
{
    std::string known;
    for (const auto& entry : trees) known += (known.empty() ? "" : ", ") + protocol::quoted(entry.first);
    return "no runtime data " + protocol::quoted(runtimeDataScheme + name) + "; this service has " +
           (known.empty() ? std::string("none") : known);
}

}  // namespace tethrix::service
