#include "service.h"

#include "http_session.h"
#include "runtime_file.h"
#include "websocket_session.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace tethrix::service {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

/// Time the connections get to close before the service stops regardless.
constexpr std::chrono::milliseconds closingGrace{500};
constexpr std::chrono::milliseconds closingPoll{10};
constexpr std::chrono::milliseconds acceptRetryDelay{100};

bool allEnded(const std::vector<std::weak_ptr<WebSocketSession>>& sessions) {
    for (const auto& session : sessions) {
        if (!session.expired())
            return false;
    }
    return true;
}

tcp::endpoint endpointFor(const std::string& address, unsigned short port) {
    boost::system::error_code error;
    auto ip = asio::ip::make_address(address, error);
    if (error)
        throw std::runtime_error("bad bind address \"" + address + "\"");
    return tcp::endpoint(ip, port);
}

}  // namespace

Service::Service(const ServiceOptions& options) : limits(options.limits) {
    auto endpoint = endpointFor(options.bind, options.port);
    std::unique_ptr<ContentStore> store;
    try {
        store = std::make_unique<ContentStore>(options.database, options.authority);
    } catch (const SqliteError& error) {
        throw std::runtime_error(error.what());
    }
    loadRuntimeData(options);
    try {
        files = std::make_unique<FileServer>(options.files);
    } catch (const std::filesystem::filesystem_error& error) {
        throw std::runtime_error("cannot serve files from " + options.files->string() + ": " + error.code().message());
    }
    ioContext = std::make_unique<asio::io_context>(1);
    setUpSimulations(options, *store);
    std::vector<std::unique_ptr<ContentStore>> stores;
    stores.push_back(std::move(store));
    try {
        while (stores.size() < std::max(1u, options.limits.queryWorkers)) {
            stores.push_back(std::make_unique<ContentStore>(options.database, options.authority));
        }
    } catch (const SqliteError& error) {
        throw std::runtime_error(error.what());
    }
    QueryWorker::ReadAhead readAhead;
    readAhead.maxBytes = options.limits.readAheadBytes;
    try {
        if (readAhead.maxBytes != 0)
            readAhead.probe = std::make_unique<DataVersionProbe>(options.database);
    } catch (const SqliteError& error) {
        throw std::runtime_error(error.what());
    }
    worker = std::make_unique<QueryWorker>(std::move(stores), options.limits.queryTimeLimit, options.logQueries,
                                           std::move(readAhead));
    context = std::make_unique<ServiceContext>(
        ServiceContext{*ioContext, *worker, *runtimeData, *files, fileReaders, limits, {}, {}, 0, false});

    acceptor = std::make_unique<tcp::acceptor>(*ioContext);
    boost::system::error_code error;
    acceptor->open(endpoint.protocol(), error);
    if (!error)
        acceptor->set_option(asio::socket_base::reuse_address(true), error);
    if (!error)
        acceptor->bind(endpoint, error);
    if (!error)
        acceptor->listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        throw std::runtime_error("cannot listen on " + options.bind + ":" + std::to_string(options.port) + ": " +
                                 error.message());
    }
    bound = acceptor->local_endpoint();
    accept();
    for (auto& simulation : simulations)
        scheduleTick(*simulation);
}

Service::~Service() {
    // Sessions die with the io_context's pending work; everything they
    // refer to must still be there, and the worker must not post any more.
    acceptor.reset();
    fileReaders.join();
    worker->stop();
    simulations.clear();
    ioContext.reset();
    worker.reset();
}

void Service::run() {
    ioContext->run();
}

void Service::stop() {
    asio::post(*ioContext, [this] { shutdown(); });
}

void Service::accept() {
    acceptor->async_accept([this](boost::system::error_code error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor->is_open())
            return;
        if (!error) {
            // Results and pongs go out at once: waiting to coalesce them
            // with more data would stall a client on its delayed ACK.
            boost::system::error_code ignored;
            if (!admitConnection()) {
                socket.close(ignored);
                return accept();
            }
            socket.set_option(tcp::no_delay(true), ignored);
            auto session = std::make_shared<HttpSession>(std::move(socket), *context);
            context->httpSessions.push_back(session);
            session->run();
            return accept();
        }
        // Out of descriptors or similar: trying again at once would spin.
        auto timer = std::make_shared<asio::steady_timer>(*ioContext, acceptRetryDelay);
        timer->async_wait([this, timer](boost::system::error_code) {
            if (acceptor->is_open())
                accept();
        });
    });
}

bool Service::admitConnection() {
    if (context->connections < context->limits.maxConnections)
        return true;
    // Connections that have not sent a whole request cost a client nothing
    // to open: the oldest of them gives way, so that idle connections
    // cannot lock the others out.
    auto& sessions = context->httpSessions;
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(), [](const auto& s) { return s.expired(); }),
                   sessions.end());
    for (auto& weak : sessions) {
        auto session = weak.lock();
        if (session && session->evictIfWaiting())
            return true;
    }
    auto now = std::chrono::steady_clock::now();
    if (now - lastRefusalLogged >= std::chrono::seconds(1)) {
        lastRefusalLogged = now;
        std::fprintf(stderr, "tethrix-service: refusing connections: %zu open, the limit (--max-connections)\n",
                     context->connections);
    }
    return false;
}

void Service::shutdown() {
    if (context->shuttingDown)
        return;
    context->shuttingDown = true;
    boost::system::error_code ignored;
    acceptor->close(ignored);
    for (auto& simulation : simulations)
        simulation->timer.cancel();
    for (auto& weak : context->sessions) {
        if (auto session = weak.lock())
            session->shutdown();
    }
    waitForSessions(std::chrono::steady_clock::now() + closingGrace);
}

void Service::loadRuntimeData(const ServiceOptions& options) {
    runtimeData = std::make_unique<RuntimeDataHub>(options.limits.maxRuntimeTreeBytes);
    for (const auto& file : options.runtimeFiles) {
        for (auto& tree : loadRuntimeFile(file)) {
            try {
                runtimeData->add(tree.name, tree.root);
            } catch (const std::invalid_argument& error) {
                throw std::runtime_error(file + ": " + error.what());
            }
        }
    }
}

void Service::setUpSimulations(const ServiceOptions& options, ContentStore& store) {
    if (options.simulate.empty())
        return;
    const auto tracks = simulatedTracks(store, options.authority);
    for (const auto& name : options.simulate) {
        if (!runtimeData->has(name)) {
            throw std::runtime_error("--simulate " + name + ": no runtime data \"" + name +
                                     "\" was loaded; give its tree with --runtime, e.g. examples/player.xml");
        }
        auto simulation =
            std::make_unique<Simulation>(Simulation{name, PlayerSimulator(tracks), asio::steady_timer(*ioContext)});
        // The first state shows at once whether the tree fits the player.
        PublishOutcome first = runtimeData->publish(name, simulation->player.fullState());
        if (first.status != PublishOutcome::Status::published) {
            throw std::runtime_error("--simulate " + name + ": the tree does not fit the player: " + first.message);
        }
        simulations.push_back(std::move(simulation));
    }
}

void Service::scheduleTick(Simulation& simulation) {
    simulation.timer.expires_after(PlayerSimulator::tickInterval);
    simulation.timer.async_wait([this, &simulation](boost::system::error_code error) {
        if (error || context->shuttingDown)
            return;
        PublishOutcome outcome = runtimeData->publish(simulation.name, simulation.player.tick());
        if (outcome.status == PublishOutcome::Status::refused) {
            // Someone else changed the queue under the player: start over
            // from its full state.
            std::fprintf(stderr, "tethrix-service: simulation of %s: %s\n", simulation.name.c_str(),
                         outcome.message.c_str());
            simulation.player.resync();
        }
        scheduleTick(simulation);
    });
}

void Service::waitForSessions(std::chrono::steady_clock::time_point deadline) {
    if (allEnded(context->sessions) || std::chrono::steady_clock::now() >= deadline) {
        ioContext->stop();
        return;
    }
    auto timer = std::make_shared<asio::steady_timer>(*ioContext, closingPoll);
    timer->async_wait([this, timer, deadline](boost::system::error_code) { waitForSessions(deadline); });
}

}  // namespace tethrix::service
