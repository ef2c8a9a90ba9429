// snapshot and tree: what a data source holds once it has settled.

#include "commands.h"
#include "host_session.h"
#include "tree_printer.h"

#include <iostream>

namespace zarvo::host {

void expectNoMoreArguments(const CommandLine& line) {
    if (!line.rest.empty()) {
        throw UsageError("unexpected argument " + line.rest.front() + " for " + line.command);
    }
}

int runSnapshot(const CommandLine& line) {
    expectNoMoreArguments(line);
    HostSession session(line.source);
    session.settle();
    std::string xmlFileName;
    std::string snapshot;
    session.library().takeDataSnapshot(&session.domain(), line.source.name, xmlFileName, snapshot);
    std::cout << snapshot << std::flush;
    return 0;
}

int runTree(const CommandLine& line) {
    expectNoMoreArguments(line);
    HostSession session(line.source);
    session.settle();
    printTree(std::cout, session.source().getData());
    std::cout << std::flush;
    return 0;
}

}  // namespace zarvo::host
