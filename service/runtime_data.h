// Runtime data: trees of typed values per service name that the service
// keeps current and pushes to subscribers. Sessions, WebSocket and HTTP
// alike, talk to it through this interface only, so that another provider
// can replace the trees loaded from files without touching the network
// code. Everything here runs on the network thread.
#ifndef TETHRIX_SERVICE_RUNTIME_DATA_H
#define TETHRIX_SERVICE_RUNTIME_DATA_H

#include <tethrix/protocol/messages.h>

#include <optional>
#include <string>
#include <string_view>

namespace tethrix::service {

/// A connection that receives updates.
class RuntimeDataSubscriber {
public:
    virtual void deliverUpdate(protocol::RequestId id, const std::string& address, const std::string& data) = 0;

protected:
    ~RuntimeDataSubscriber() = default;
};

/// What became of a published update.
struct PublishOutcome {
    enum class Status { published, unknownName, refused };
    Status status = Status::published;
    /// One line: who got it, or why nobody did.
    std::string message;
};

class RuntimeData {
public:
    virtual ~RuntimeData() = default;

    /// Starts sending the updates of `uri` (servicedata://<name>) to
    /// `subscriber` under `id`, the current state first. Gives the reason
    /// for the client when it cannot.
    virtual std::optional<std::string> subscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id,
                                                 const std::string& uri) = 0;
    virtual void unsubscribe(RuntimeDataSubscriber& subscriber, protocol::RequestId id) = 0;
    /// The subscriber goes away; nothing may be delivered to it afterwards.
    virtual void unsubscribeAll(RuntimeDataSubscriber& subscriber) = 0;

    /// Applies update text to the tree `name` and passes it on to every
    /// subscriber of it, or refuses it whole and changes nothing.
    virtual PublishOutcome publish(const std::string& name, std::string_view text) = 0;
    /// The current state of the tree `name` as update text; none if there
    /// is no such tree.
    virtual std::optional<std::string> state(const std::string& name) const = 0;
};

}  // namespace tethrix::service

#endif
