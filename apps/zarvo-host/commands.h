// The commands of zarvo-host.
#ifndef ZARVO_HOST_COMMANDS_H
#define ZARVO_HOST_COMMANDS_H

#include "command_line.h"

#include <functional>
#include <vector>

namespace zarvo::host {

struct Command {
    const char* name;
    const char* summary;
    const char* help;  ///< the whole --help text of the command
    std::function<int(const CommandLine&)> run;
};

/// Every command, in the order the help lists them.
const std::vector<Command>& commands();

/// The options that every command running a data source takes, for help texts.
extern const char* const sourceOptionsHelp;

/// Throws a UsageError if the command got anything it does not take.
void expectNoMoreArguments(const CommandLine& line);

int runSnapshot(const CommandLine& line);
int runTree(const CommandLine& line);
int runLoad(const CommandLine& line);
int runScroll(const CommandLine& line);
int runWatch(const CommandLine& line);
int runInspect(const CommandLine& line);

}  // namespace zarvo::host

#endif
