// The runtime data trees that the service publishes, by name, each with its
// subscribers. An update is checked against its tree with the client
// library's own reading of the format (protocol/runtime_update.h), so that
// what the service passes on is what every subscriber can apply; the text
// itself is passed on as it came.
//
// Each tree has a bound on its size (protocol::stateWeight), so that its
// state always fits the frame that carries it to a new subscriber; an
// update that would pass it is refused.
#ifndef TETHRIX_SERVICE_RUNTIME_DATA_HUB_H
#define TETHRIX_SERVICE_RUNTIME_DATA_HUB_H

#include "runtime_data.h"
#include "runtime_node.h"

#include <tethrix/protocol/runtime_update.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tethrix::service {

constexpr const char* runtimeDataScheme = "servicedata://";

class RuntimeDataHub : public RuntimeData {
public:
    explicit RuntimeDataHub(std::size_t maxTreeBytes = std::size_t{8} << 20) : maxTreeBytes(maxTreeBytes) {}

    /// Adds the tree `name`. Throws std::invalid_argument if the name is
    /// taken or the tree is past the bound.
    void add(const std::string& name, RuntimeNode::Ptr root);
    bool has(const std::string& name) const { return trees.count(name) != 0; }
    std::size_t subscriberCount(const std::string& name) const;

    std::optional<std::string> subscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id,
                                         const std::string& uri) override;
    void unsubscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id) override;
    void unsubscribeAll(RuntimeDataSubscriber& subscriber) override;
    PublishOutcome publish(const std::string& name, std::string_view text) override;
    std::optional<std::string> state(const std::string& name) const override;

private:
    struct Subscription {
        RuntimeDataSubscriber* subscriber;
        protocol::RequestId id;
    };
    struct Tree {
        RuntimeNode::Ptr root;
        protocol::RuntimeTreeSize size;
        std::vector<Subscription> subscriptions;
    };

    /// "no runtime data "servicedata://x"; this service has "a", "b"".
    std::string unknown(const std::string& name) const;

    std::size_t maxTreeBytes;
    std::map<std::string, Tree> trees;
};

}  // namespace tethrix::service

#endif
