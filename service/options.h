// The command line of tethrix-service.
#ifndef TETHRIX_SERVICE_OPTIONS_H
#define TETHRIX_SERVICE_OPTIONS_H

#include "service.h"

#include <string>
#include <vector>

namespace tethrix::service {

struct CommandLine {
    ServiceOptions options;
    bool help = false;
};

/// Throws std::invalid_argument with a one-line reason for a bad command
/// line. `arguments` excludes the program name.
CommandLine parseCommandLine(const std::vector<std::string>& arguments);

/// The text of --help.
std::string usage();

}  // namespace tethrix::service

#endif
