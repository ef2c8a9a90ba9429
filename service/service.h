// The whole service in one object: the database behind a query worker, the
// file server, runtime data with its simulations and the listening socket,
// on one io_context.
// main() runs it; tests run it on a thread of their own.
#ifndef TETHRIX_SERVICE_SERVICE_H
#define TETHRIX_SERVICE_SERVICE_H

#include "content_store.h"
#include "file_server.h"
#include "player_simulator.h"
#include "query_worker.h"
#include "runtime_data_hub.h"
#include "service_limits.h"
#include "session_registry.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tethrix::service {

struct ServiceOptions {
    std::string database;
    std::string bind = "127.0.0.1";
    unsigned short port = 0;
    std::optional<std::filesystem::path> files;
    std::string authority = defaultAuthority;
    bool logQueries = false;
    /// Files of runtime data trees (see runtime_file.h).
    std::vector<std::string> runtimeFiles;
    /// Trees that the player simulator drives.
    std::vector<std::string> simulate;
    ServiceLimits limits;
};

class Service {
public:
    /// Opens the database, reads the runtime data trees, sets up the
    /// simulations and binds the socket. Throws std::runtime_error with a
    /// one-line reason when any of that fails.
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
    /// Whether a new connection may stay, making room if need be.
    bool admitConnection();
    void shutdown();
    void waitForSessions(std::chrono::steady_clock::time_point deadline);

    struct Simulation {
        std::string name;
        PlayerSimulator player;
        boost::asio::steady_timer timer;
    };
    void loadRuntimeData(const ServiceOptions& options);
    void setUpSimulations(const ServiceOptions& options, ContentStore& store);
    void scheduleTick(Simulation& simulation);

    std::unique_ptr<RuntimeDataHub> runtimeData;
    std::unique_ptr<FileServer> files;
    std::unique_ptr<boost::asio::io_context> ioContext;
    std::unique_ptr<QueryWorker> worker;
    ServiceLimits limits;
    /// Opens and reads served files, away from the network thread.
    boost::asio::thread_pool fileReaders{1};
    std::unique_ptr<ServiceContext> context;
    std::unique_ptr<boost::asio::ip::tcp::acceptor> acceptor;
    boost::asio::ip::tcp::endpoint bound;
    std::chrono::steady_clock::time_point lastRefusalLogged;
    /// In a list, so that a simulation stays where its timer's handler
    /// expects it.
    std::vector<std::unique_ptr<Simulation>> simulations;
};

}  // namespace tethrix::service

#endif
