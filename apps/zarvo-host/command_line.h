// The command line of zarvo-host: a command and its options.
#ifndef ZARVO_HOST_COMMAND_LINE_H
#define ZARVO_HOST_COMMAND_LINE_H

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo::host {

/// A command line that cannot be carried out as given; the program exits
/// with status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What every command that runs a data source takes.
struct SourceOptions {
    std::string configFile;   ///< --config FILE
    std::string declaration;  ///< --declaration XML, or the text of @FILE
    std::string name = "DataSource";
    std::string serviceUrl;                         ///< --service URL, else $TETHRIX_SERVICE_URL
    std::optional<std::chrono::milliseconds> wait;  ///< --wait-ms N
    std::string pluginPath;                         ///< --plugin PATH; empty: the one beside the program
};

struct CommandLine {
    std::string command;
    bool help = false;
    SourceOptions source;
    /// Options and operands that only some commands take, in order, for the
    /// command to read.
    std::vector<std::string> rest;
};

/// Reads argv. Options of SourceOptions are taken wherever they stand;
/// everything else goes to `rest`.
CommandLine parseCommandLine(int argc, char** argv);

/// Takes the value of option `name` at `argv[index + 1]`, or throws.
std::string optionValue(const std::vector<std::string>& arguments, std::size_t& index);
/// A whole non-negative number, or a UsageError naming `option`.
unsigned long parseCount(const std::string& option, const std::string& text);
/// The whole contents of a file, or a UsageError naming `what`.
std::string readWholeFile(const std::string& path, const std::string& what);

}  // namespace zarvo::host

#endif
