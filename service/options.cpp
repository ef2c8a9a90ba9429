#include "options.h"

#include "publish_command.h"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <stdexcept>

namespace tethrix::service {

namespace {

[[noreturn]] void refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

unsigned short portNumber(const std::string& text) {
    unsigned value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > 65535) {
        refuse("--port needs a number from 0 to 65535, not \"" + text + "\"");
    }
    return static_cast<unsigned short>(value);
}

/// A whole number from `least` up, for the option `name`.
std::uint64_t count(const std::string& name, const std::string& text, std::uint64_t least = 1) {
    std::uint64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > (1ull << 40)) {
        refuse(name + " needs a whole number from " + std::to_string(least) + " up, not \"" + text + "\"");
    }
    return value;
}

std::chrono::milliseconds milliseconds(const std::string& name, const std::string& text) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(count(name, text)));
}

void check(const ServiceOptions& options) {
    if (options.database.empty())
        refuse("--db FILE is required");
    if (options.authority.empty() || options.authority.find('/') != std::string::npos) {
        refuse("--authority needs a name without \"/\", not \"" + options.authority + "\"");
    }
    if (options.files) {
        std::error_code error;
        if (!std::filesystem::is_directory(*options.files, error)) {
            refuse("--files: \"" + options.files->string() + "\" is not a directory");
        }
    }
}

}  // namespace

CommandLine parseCommandLine(const std::vector<std::string>& arguments) {
    CommandLine line;
    ServiceOptions& options = line.options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::optional<std::string> inlineValue;
        if (auto equals = name.find('='); name.rfind("--", 0) == 0 && equals != std::string::npos) {
            inlineValue = name.substr(equals + 1);
            name = name.substr(0, equals);
        }
        auto value = [&]() -> std::string {
            if (inlineValue)
                return *inlineValue;
            if (i + 1 >= arguments.size())
                refuse(name + " needs a value");
            return arguments[++i];
        };
        auto flag = [&] {
            if (inlineValue)
                refuse(name + " takes no value");
        };
        if (name == "--help" || name == "-h") {
            flag();
            line.help = true;
        } else if (name == "--db") {
            options.database = value();
        } else if (name == "--port") {
            options.port = portNumber(value());
        } else if (name == "--bind") {
            options.bind = value();
        } else if (name == "--files") {
            options.files = value();
        } else if (name == "--authority") {
            options.authority = value();
        } else if (name == "--runtime") {
            options.runtimeFiles.push_back(value());
        } else if (name == "--simulate") {
            options.simulate.push_back(value());
        } else if (name == "--max-connections") {
            options.limits.maxConnections = count(name, value());
        } else if (name == "--max-session-buffer") {
            options.limits.sessionOutboxBytes = count(name, value());
        } else if (name == "--read-ahead-bytes") {
            options.limits.readAheadBytes = count(name, value(), 0);
        } else if (name == "--stuck-timeout-ms") {
            options.limits.stuckTimeout = milliseconds(name, value());
        } else if (name == "--idle-timeout-ms") {
            options.limits.idleTimeout = milliseconds(name, value());
        } else if (name == "--request-timeout-ms") {
            options.limits.requestTimeout = milliseconds(name, value());
        } else if (name == "--query-time-limit-ms") {
            options.limits.queryTimeLimit = milliseconds(name, value());
        } else if (name == "--query-workers") {
            const auto workers = count(name, value());
            if (workers > 64)
                refuse("--query-workers takes 1 to 64, not " + std::to_string(workers));
            options.limits.queryWorkers = static_cast<unsigned>(workers);
        } else if (name == "--max-tree-bytes") {
            options.limits.maxRuntimeTreeBytes = count(name, value());
        } else if (name == "--log-queries") {
            flag();
            options.logQueries = true;
        } else {
            refuse("unknown option \"" + name + "\" (see --help)");
        }
    }
    if (!line.help)
        check(options);
    return line;
}

std::string usage() {
    return std::string(
               "usage: tethrix-service --db FILE [options]\n"
               "\n"
               "Serves the tables of an SQLite database as content://<authority>/<table>\n"
               "and runtime data trees as servicedata://<name> over WebSocket (path\n"
               "/tethrix), and files and runtime data over HTTP on the same port.\n"
               "\n"
               "  --db FILE          the SQLite database, opened read-only (required)\n"
               "  --port N           port to listen on; 0 picks a free one (default 0)\n"
               "  --bind ADDRESS     address to listen on (default 127.0.0.1)\n"
               "  --files DIR        serve the files under DIR over HTTP\n"
               "  --authority NAME   the content authority served (default com.tavelorix.content)\n"
               "  --log-queries      one line per query on standard error\n"
               "  --runtime FILE     publish the runtime data trees of FILE (repeatable)\n"
               "  --simulate NAME    let a simulated player drive the tree NAME (repeatable)\n"
               "  --help             this text\n"
               "\n"
               "Limits (docs/limits.md):\n"
               "  --max-connections N        open connections (default 512)\n"
               "  --max-session-buffer BYTES answers queued for one client before it is\n"
               "                             read no more (default 16777216)\n"
               "  --read-ahead-bytes BYTES   largest block read ahead for a client that\n"
               "                             pages, one a client; 0: none (default 1048576)\n"
               "  --stuck-timeout-ms MS      time a client may stay past that before it is\n"
               "                             closed (default 30000)\n"
               "  --idle-timeout-ms MS       a silent WebSocket peer is pinged at half this\n"
               "                             and closed after it (default 60000)\n"
               "  --request-timeout-ms MS    time for an HTTP request to arrive and for each\n"
               "                             piece of an answer to leave (default 30000)\n"
               "  --query-time-limit-ms MS   time a query may run (default 10000)\n"
               "  --query-workers N          threads running queries (default 2)\n"
               "  --max-tree-bytes BYTES     size of a runtime data tree (default 8388608)\n"
               "\n"
               "Prints \"listening on ADDRESS:PORT\" once ready. Stops on SIGINT or SIGTERM.\n"
               "\n") +
           publishUsage +
           "\n"
           "\n"
           "Publishes update text (or that of FILE; @- reads standard input) to the\n"
           "runtime data tree NAME of the service at URL (http://HOST:PORT or HOST:PORT).\n";
}

}  // namespace tethrix::service
