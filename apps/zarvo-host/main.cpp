// zarvo-host: loads the data source plug-in as the engine does and shows what
// a data source holds.

#include "commands.h"

#include <curl/curl.h>

#include <iostream>
#include <stdexcept>

namespace zarvo::host {

const char* const sourceOptionsHelp =
    "Data source options:\n"
    "  --config FILE          XML configuration file (ZarvoTethrixDataSource.XmlFileName)\n"
    "  --declaration XML|@FILE\n"
    "                         XML configuration text, or @ and a file holding it\n"
    "                         (ZarvoTethrixDataSource.XmlDeclaration)\n"
    "  --name NAME            resource name of the data source (default DataSource)\n"
    "  --service URL          the Tethrix service to connect to (default: the\n"
    "                         environment variable TETHRIX_SERVICE_URL; none: stay\n"
    "                         unconnected)\n"
    "  --wait-ms N            with a service: wait at most N milliseconds for the\n"
    "                         source to settle\n"
    "  --plugin PATH          the plug-in library (default: the one built beside\n"
    "                         this program)\n"
    "  --help                 this text\n";

const std::vector<Command>& commands() {
    static const std::vector<Command> all = {
        {"snapshot", "print the data snapshot of the source as XML",
         "Usage: zarvo-host snapshot [options]\n\n"
         "Loads the data source and, once it has settled, prints the XML data snapshot\n"
         "of the resource --name on standard output, and nothing else there. Without a\n"
         "service the source stays unconnected and the snapshot shows what loading\n"
         "alone built.\n",
         runSnapshot},
        {"tree", "print the whole data tree under Root",
         "Usage: zarvo-host tree [options]\n\n"
         "Loads the data source and, once it has settled, prints its tree under \"Root\",\n"
         "one object a line, indented, with type and value.\n",
         runTree},
        {"load", "load one resource URL and print the texture it gives",
         "Usage: zarvo-host load URL [--timeout-ms N] [--plugin PATH] [--service URL]\n\n"
         "Loads the resource at URL through the engine's resource manager, with the\n"
         "plug-in's http and https protocols registered, and prints the width, height and\n"
         "pixel format of the texture it gives. If there is none, the log lines on\n"
         "standard error say why and the exit status is 1. --timeout-ms bounds the wait\n"
         "(default 30000).\n",
         runLoad},
        {"scroll", "scroll a list of the source as a list view would",
         "Usage: zarvo-host scroll PATH [--to N] [--window W] [--step K] [--frame-ms F]\n"
         "                        [--jump INDEX]... [--print-every K] [options]\n\n"
         "Loads the data source and, once it has settled, acts as a list view on the list\n"
         "at PATH in its tree (such as tracks): a window of W rows (default 20) starts at\n"
         "row 0 and moves on by K rows (default 4) each frame of F milliseconds (default\n"
         "16; 0: as fast as the loop turns), acquiring the rows that enter and releasing\n"
         "those that leave while the loop runs. It goes until row N is shown (default:\n"
         "to the end, following the list as it grows) and waits there until the rows\n"
         "shown are filled. Then it jumps to each --jump INDEX in turn and waits there\n"
         "likewise. --print-every K prints each row whose index is a multiple of K once\n"
         "it is filled.\n\n"
         "The report on standard output gives the rows seen and how many of them were\n"
         "filled while shown, the queries sent, the most rows the list held at once, and\n"
         "the time taken. --wait-ms bounds the settling and every wait in which nothing\n"
         "changes (default 10000); rows left unfilled make the exit status 1.\n",
         runScroll},
        {"watch", "print every change in the source's tree as it happens",
         "Usage: zarvo-host watch [--for SECONDS] [--rows N] [options]\n\n"
         "Loads the data source and prints one line for every notification in its tree,\n"
         "as it happens, until SECONDS have passed (fractions allowed) or SIGINT comes:\n"
         "  Root.connected = true               a value changed\n"
         "  Root.tracks (list, 200 rows)         a list changed\n"
         "  Root.tracks[3] title=\"Cold Light\"   a row came into view, with its fields\n"
         "  DataSource (tree replaced)           the source built a new tree\n"
         "The first N rows of each list (default 10) are held as a list view would, so\n"
         "that their values are watched too.\n",
         runWatch},
        {"inspect", "serve a live page of the source to a browser",
         "Usage: zarvo-host inspect [--port N] [--bind ADDR] [options]\n\n"
         "Loads the data source and serves a live page of it on ADDR (default\n"
         "127.0.0.1) and port N (default 0: a free one), until SIGINT or SIGTERM. The\n"
         "first line on standard output is the page's address:\n"
         "  inspector at http://127.0.0.1:41234/\n"
         "The page shows the tree with its values as they change, the connection\n"
         "flag, each list as a list view that acquires the rows it shows and releases\n"
         "the others (with the list's queries and their round trips), images, the\n"
         "log filtered by level and category, and a button that downloads the data\n"
         "snapshot. Anyone who can reach the address can watch; the page changes\n"
         "nothing in the source but which rows its views hold.\n",
         runInspect},
    };
    return all;
}

namespace {

void printOverview(std::ostream& out) {
    out << "Usage: zarvo-host COMMAND [options]\n\n"
           "Loads the Zarvo Tethrix data source plug-in as the engine does, runs one data\n"
           "source and shows what it holds. Log records go to standard error.\n\n"
           "Commands:\n";
    for (const Command& command : commands()) {
        std::string name = command.name;
        name.resize(12, ' ');
        out << "  " << name << command.summary << "\n";
    }
    out << "\n'zarvo-host COMMAND --help' tells more of one command.\n";
}

const Command* findCommand(const std::string& name) {
    for (const Command& command : commands()) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

int run(int argc, char** argv) {
    const CommandLine line = parseCommandLine(argc, argv);
    if (line.command.empty()) {
        if (line.help) {
            printOverview(std::cout);
            return 0;
        }
        throw UsageError("no command given; try zarvo-host --help");
    }
    const Command* command = findCommand(line.command);
    if (command == nullptr) {
        throw UsageError("unknown command " + line.command + "; try zarvo-host --help");
    }
    if (line.help) {
        std::cout << command->help << "\n" << sourceOptionsHelp;
        return 0;
    }
    return command->run(line);
}

}  // namespace
}  // namespace zarvo::host

int main(int argc, char** argv) {
    // Once per process, before any thread of the resource loader transfers.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    try {
        return zarvo::host::run(argc, argv);
    } catch (const zarvo::host::UsageError& error) {
        std::cerr << "zarvo-host: " << error.what() << "\n";
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "zarvo-host: " << error.what() << "\n";
        return 1;
    }
}
