#include "command_line.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace zarvo::host {

std::string optionValue(const std::vector<std::string>& arguments, std::size_t& index) {
    if (index + 1 >= arguments.size()) {
        throw UsageError("option " + arguments[index] + " needs a value");
    }
    return arguments[++index];
}

unsigned long parseCount(const std::string& option, const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        throw UsageError("option " + option + " takes a whole number, not \"" + text + "\"");
    }
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    if (errno == ERANGE) {
        throw UsageError("option " + option + ": " + text + " is too large");
    }
    return value;
}

std::string readWholeFile(const std::string& path, const std::string& what) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + what + " " + path + ": " + std::strerror(errno));
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

CommandLine parseCommandLine(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    CommandLine line;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            line.help = true;
        } else if (argument == "--config") {
            line.source.configFile = optionValue(arguments, i);
        } else if (argument == "--declaration") {
            const std::string value = optionValue(arguments, i);
            line.source.declaration =
                value.size() > 1 && value[0] == '@' ? readWholeFile(value.substr(1), "declaration file") : value;
        } else if (argument == "--name") {
            line.source.name = optionValue(arguments, i);
        } else if (argument == "--service") {
            line.source.serviceUrl = optionValue(arguments, i);
        } else if (argument == "--wait-ms") {
            line.source.wait = std::chrono::milliseconds(parseCount(argument, optionValue(arguments, i)));
        } else if (argument == "--plugin") {
            line.source.pluginPath = optionValue(arguments, i);
        } else if (line.command.empty() && !argument.empty() && argument[0] != '-') {
            line.command = argument;
        } else {
            line.rest.push_back(argument);
        }
    }
    if (line.source.serviceUrl.empty()) {
        if (const char* fromEnvironment = std::getenv("TETHRIX_SERVICE_URL")) {
            line.source.serviceUrl = fromEnvironment;
        }
    }
    return line;
}

}  // namespace zarvo::host
