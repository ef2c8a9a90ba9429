// What every connection shares: the query worker, runtime data, the file
// server, and the list of open WebSocket sessions for a clean shutdown.
#ifndef TETHRIX_SERVICE_SESSION_REGISTRY_H
#define TETHRIX_SERVICE_SESSION_REGISTRY_H

#include "file_server.h"
#include "query_worker.h"
#include "runtime_data.h"

#include <boost/asio/io_context.hpp>

#include <memory>
#include <vector>

namespace tethrix::service {

class WebSocketSession;

struct ServiceContext {
    boost::asio::io_context& io;
    QueryWorker& worker;
    RuntimeData& runtimeData;
    const FileServer& files;
    /// Open sessions; dead entries are pruned as new ones come.
    std::vector<std::weak_ptr<WebSocketSession>> sessions;
    bool shuttingDown = false;
};

}  // namespace tethrix::service

#endif
