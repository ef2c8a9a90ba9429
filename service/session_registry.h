// What every connection shares: the query worker, runtime data, the file
// server, and the list of open WebSocket sessions for a clean shutdown.
#ifndef TETHRIX_SERVICE_SESSION_REGISTRY_H
#define TETHRIX_SERVICE_SESSION_REGISTRY_H

#include "file_server.h"
#include "query_worker.h"
#include "runtime_data.h"
#include "service_limits.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>

#include <memory>
#include <vector>

namespace tethrix::service {

class HttpSession;
class WebSocketSession;

struct ServiceContext {
    boost::asio::io_context& io;
    QueryWorker& worker;
    RuntimeData& runtimeData;
    const FileServer& files;
    /// Where files are opened and read.
    boost::asio::thread_pool& fileReaders;
    const ServiceLimits& limits;
    /// Open sessions; dead entries are pruned as new ones come.
    std::vector<std::weak_ptr<WebSocketSession>> sessions;
    std::vector<std::weak_ptr<HttpSession>> httpSessions;
    /// Open TCP connections, counted by ConnectionSlot.
    std::size_t connections = 0;
    bool shuttingDown = false;
};

/// Counts one open connection for as long as it lives; passed on from the
/// HTTP session to the WebSocket session that takes the connection over.
class ConnectionSlot {
public:
    explicit ConnectionSlot(ServiceContext& context) : context(&context) { ++context.connections; }
    ~ConnectionSlot() {
        if (context)
            --context->connections;
    }
    ConnectionSlot(ConnectionSlot&& other) noexcept : context(other.context) { other.context = nullptr; }
    ConnectionSlot(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(ConnectionSlot&&) = delete;

private:
    ServiceContext* context;
};

}  // namespace tethrix::service

#endif
