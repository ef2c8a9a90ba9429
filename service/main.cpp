// tethrix-service: content from an SQLite database, runtime data, files
// over HTTP; and its publish command.
#include "options.h"
#include "publish_command.h"
#include "service.h"

#include <boost/asio/signal_set.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    using namespace tethrix::service;
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments.front() == "publish") {
        return runPublishCommand(std::vector<std::string>(arguments.begin() + 1, arguments.end()), std::cout,
                                 std::cerr);
    }
    try {
        CommandLine line = parseCommandLine(arguments);
        if (line.help) {
            std::cout << usage();
            return 0;
        }
        Service service(line.options);
        boost::asio::signal_set signals(service.io(), SIGINT, SIGTERM);
        signals.async_wait([&service](boost::system::error_code error, int) {
            if (!error)
                service.stop();
        });
        auto endpoint = service.endpoint();
        std::string host = endpoint.address().to_string();
        if (endpoint.address().is_v6())
            host = "[" + host + "]";
        // Scripts and tests wait for this line to learn the port.
        std::printf("listening on %s:%u\n", host.c_str(), static_cast<unsigned>(endpoint.port()));
        std::fflush(stdout);
        service.run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tethrix-service: %s\n", error.what());
        return 1;
    }
}
