#include "runtime_data_hub.h"

#include <tethrix/protocol/runtime_state.h>
#include <tethrix/protocol/runtime_update.h>

#include <algorithm>
#include <stdexcept>

namespace tethrix::service {

namespace {

std::string subscribers(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " subscriber" : " subscribers");
}

}  // namespace

void RuntimeDataHub::add(const std::string& name, RuntimeNode::Ptr root) {
    const std::string uri = protocol::quoted(runtimeDataScheme + name);
    const protocol::RuntimeTreeSize size{protocol::stateWeight<RuntimeTreeModel>(*root), maxTreeBytes};
    if (size.bytes > size.limit) {
        throw std::invalid_argument("runtime data " + uri + " takes about " + std::to_string(size.bytes) +
                                    " bytes, past the limit of " + std::to_string(size.limit) + " (--max-tree-bytes)");
    }
    if (!trees.emplace(name, Tree{std::move(root), size, {}}).second) {
        throw std::invalid_argument("runtime data " + uri + " is given twice");
    }
}

std::size_t RuntimeDataHub::subscriberCount(const std::string& name) const {
    auto tree = trees.find(name);
    return tree == trees.end() ? 0 : tree->second.subscriptions.size();
}

std::optional<std::string> RuntimeDataHub::subscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id,
                                                     const std::string& uri) {
    const std::string scheme = runtimeDataScheme;
    if (uri.rfind(scheme, 0) != 0) {
        return protocol::quoted(uri) + " is not a runtime data URI (" + scheme + "<name>)";
    }
    const std::string name = uri.substr(scheme.size());
    auto tree = trees.find(name);
    if (tree == trees.end())
        return unknown(name);
    std::string state = protocol::writeRuntimeState<RuntimeTreeModel>(*tree->second.root);
    // The bound on a tree keeps this from happening; should it all the
    // same, a refusal beats a frame that makes the client drop the
    // connection and come back for the same again.
    if (state.size() * 2 > protocol::maxResultFrameBytes) {
        return "the state of " + uri + " is too large to send (" + std::to_string(state.size()) + " bytes)";
    }
    tree->second.subscriptions.push_back({&subscriber, id});
    subscriber.deliverUpdate(id, std::string(), state);
    return std::nullopt;
}

void RuntimeDataHub::unsubscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id) {
    for (auto& [name, tree] : trees) {
        auto& list = tree.subscriptions;
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [&](const Subscription& s) { return s.subscriber == &subscriber && s.id == id; }),
                   list.end());
    }
}

void RuntimeDataHub::unsubscribeAll(RuntimeDataSubscriber& subscriber) {
    for (auto& [name, tree] : trees) {
        auto& list = tree.subscriptions;
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [&](const Subscription& s) { return s.subscriber == &subscriber; }),
                   list.end());
    }
}

PublishOutcome RuntimeDataHub::publish(const std::string& name, std::string_view text) {
    auto tree = trees.find(name);
    if (tree == trees.end())
        return {PublishOutcome::Status::unknownName, unknown(name)};
    if (auto fault = protocol::applyRuntimeUpdate<RuntimeTreeModel>(text, *tree->second.root, &tree->second.size)) {
        return {PublishOutcome::Status::refused, fault->message("update refused")};
    }
    const std::string data(text);
    // Delivering only queues a frame, so no subscriber can come or go while
    // this runs; the copy makes that independent of the sessions.
    const auto receivers = tree->second.subscriptions;
    for (const Subscription& s : receivers)
        s.subscriber->deliverUpdate(s.id, std::string(), data);
    return {PublishOutcome::Status::published,
            std::string("published to ") + runtimeDataScheme + name + " (" + subscribers(receivers.size()) + ")"};
}

std::optional<std::string> RuntimeDataHub::state(const std::string& name) const {
    auto tree = trees.find(name);
    if (tree == trees.end())
        return std::nullopt;
    return protocol::writeRuntimeState<RuntimeTreeModel>(*tree->second.root);
}

std::string RuntimeDataHub::unknown(const std::string& name) const {
    std::string known;
    for (const auto& entry : trees)
        known += (known.empty() ? "" : ", ") + protocol::quoted(entry.first);
    return "no runtime data " + protocol::quoted(runtimeDataScheme + name) + "; this service has " +
           (known.empty() ? std::string("none") : known);
}

}  // namespace tethrix::service
