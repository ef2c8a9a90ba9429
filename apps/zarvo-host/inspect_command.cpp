// inspect: a live page of one data source, served to browsers: its tree as
// it changes, its lists as list views, its images, its log and its snapshot.

#include "commands.h"
#include "host_session.h"
#include "inspector.h"
#include "inspector_log.h"
#include "inspector_server.h"
#include "query_monitor.h"

#include <zarvo/client.h>
#include <zarvo/client/network_transport.h>

#include <boost/asio/ip/address.hpp>

#include <csignal>
#include <iostream>

namespace zarvo::host {

namespace {

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void onStopSignal(int) {
    stopRequested = 1;
}

// A signal cannot wake the loop safely; a timer this often lets it look.
const std::chrono::milliseconds signalPollInterval(50);

InspectorServerOptions parseInspectOptions(const CommandLine& line) {
    InspectorServerOptions options;
    for (std::size_t i = 0; i < line.rest.size(); ++i) {
        const std::string& argument = line.rest[i];
        if (argument == "--port") {
            const unsigned long port = parseCount(argument, optionValue(line.rest, i));
            if (port > 65535) {
                throw UsageError("option --port takes a port from 0 to 65535");
            }
            options.port = static_cast<unsigned short>(port);
        } else if (argument == "--bind") {
            options.bind = optionValue(line.rest, i);
            boost::system::error_code error;
            boost::asio::ip::make_address(options.bind, error);
            if (error) {
                throw UsageError("not an address to listen on: \"" + options.bind + "\"");
            }
        } else {
            throw UsageError("unexpected argument " + argument + " for inspect");
        }
    }
    return options;
}

}  // namespace

int runInspect(const CommandLine& line) {
    InspectorServerOptions serverOptions = parseInspectOptions(line);
    serverOptions.pageDirectory = findInspectorPage();
    if (serverOptions.pageDirectory.empty()) {
        throw std::runtime_error("the inspector's page files are not installed beside the program");
    }
    std::optional<client::NetworkTransportOptions> serviceOptions;
    if (!line.source.serviceUrl.empty()) {
        serviceOptions = client::parseServiceUrl(line.source.serviceUrl);
        if (!serviceOptions) {
            throw UsageError("not a service URL: \"" + line.source.serviceUrl +
                             "\"; expected ws://HOST:PORT[/PATH] or HOST:PORT");
        }
    }

    InspectorLog log;
    // The session is made without the service: the transport, put in
    // below, is wrapped so that the page sees every query go out.
    SourceOptions sourceOptions = line.source;
    sourceOptions.serviceUrl.clear();
    HostSession session(sourceOptions);
    auto inspector =
        std::make_shared<Inspector>(session.source(), session.domain(), session.library(), log,
                                    InspectorOptions{line.source.name, line.source.serviceUrl, line.source.configFile});
    std::shared_ptr<QueryMonitor> monitor;
    if (serviceOptions) {
        serviceOptions->loop = &session.loop();
        Inspector* target = inspector.get();
        monitor =
            std::make_shared<QueryMonitor>(std::make_shared<client::NetworkTransport>(*serviceOptions), session.loop(),
                                           [target](const QueryEvent& event) { target->onQuery(event); });
        client::installTransport(*Context::instance(session.domain(), nullptr), monitor);
    }

    stopRequested = 0;
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction previousInterrupt {};
    struct sigaction previousTerminate {};
    sigaction(SIGINT, &action, &previousInterrupt);
    sigaction(SIGTERM, &action, &previousTerminate);
    {
        InspectorServer server(serverOptions, session.loop(), inspector);
        std::cout << "inspector at " << server.url() << std::endl;
        const std::shared_ptr<void> poll =
            session.loop().addTimer(signalPollInterval, ZvuTimerMessageModeRepeat, [](const auto&) {});
        session.loop().runUntil([]() { return stopRequested != 0; }, std::chrono::milliseconds::max());
        session.loop().removeTimer(poll);
    }
    if (monitor) {
        monitor->stopListening();
    }
    inspector.reset();
    sigaction(SIGINT, &previousInterrupt, nullptr);
    sigaction(SIGTERM, &previousTerminate, nullptr);
    return 0;
}

}  // namespace zarvo::host
