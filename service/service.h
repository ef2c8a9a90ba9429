// The whole service in one object: the database behind a query worker, the
// file server, runtime data and the listening socket, on one io_context.
// main() runs it; tests run it on a thread of their own.
#ifndef TETHRIX_SERVICE_SERVICE_H
#define TETHRIX_SERVICE_SERVICE_H

#include "content_store.h"
#include "file_server.h"
#include "query_worker.h"
#include "runtime_data.h"
#include "session_registry.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace tethrix::service {

struct ServiceOptions {
    std::string database;
    std::string bind = "127.0.0.1";
    unsigned short port = 0;
    std::optional<std::filesystem::path> files;
    std::string authority = defaultAuthority;
    bool logQueries = false;
};

class Service {
public:
    /// Opens the database and binds the socket. Throws std::runtime_error
    /// with a one-line reason when either fails.
    explicit Service(const ServiceOptions& options);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// The address and port bound, the real port when 0 was asked for.
    boost::asio::ip::tcp::endpoint endpoint() const { return bound; }
    boost::asio::io_context& io() { return *ioContext; }

    /// Serves until stop.
    void run();
    /// Stops accepting, closes every connection and ends run. Callable from
    /// any thread.
    void stop();

private:
    void accept();
    void shutdown();
    void waitForSessions(std::chrono::steady_clock::time_point deadline);

    std::unique_ptr<UnavailableRuntimeData> runtimeData;
    std::unique_ptr<FileServer> files;
    std::unique_ptr<boost::asio::io_context> ioContext;
    std::unique_ptr<QueryWorker> worker;
    std::unique_ptr<ServiceContext> context;
    std::unique_ptr<boost::asio::ip::tcp::acceptor> acceptor;
    boost::asio::ip::tcp::endpoint bound;
};

}  // namespace tethrix::service

#endif
