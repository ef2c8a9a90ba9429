// Runtime data: trees of typed values per service name that the service
// keeps current and pushes to subscribers. Sessions talk to it through this
// interface only, so that a real provider can replace the placeholder
// without touching the network code. Everything here runs on the network
// thread.
#ifndef TETHRIX_SERVICE_RUNTIME_DATA_H
#define TETHRIX_SERVICE_RUNTIME_DATA_H

#include <tethrix/protocol/messages.h>

#include <optional>
#include <string>

namespace tethrix::service {

/// A connection that receives updates.
class RuntimeDataSubscriber {
public:
    virtual void deliverUpdate(protocol::RequestId id, const std::string& address, const std::string& data) = 0;

protected:
    ~RuntimeDataSubscriber() = default;
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
};

/// Refuses every subscription: the service has no runtime data yet.
class UnavailableRuntimeData : public RuntimeData {
public:
    std::optional<std::string> subscribe(RuntimeDataSubscriber&, protocol::RequestId, const std::string&) override
    {
        return std::string("runtime data not available");
    }
    void unsubscribe(RuntimeDataSubscriber&, protocol::RequestId) override {}
    void unsubscribeAll(RuntimeDataSubscriber&) override {}
};

}  // namespace tethrix::service

#endif
