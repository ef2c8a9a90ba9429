// Programs run as processes of their own: to their end, or alongside the
// test with their output read as it comes.
#ifndef ZARVO_TESTKIT_PROCESS_H
#define ZARVO_TESTKIT_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace zarvo {
namespace testkit {

/// Only a fault takes this long; a passing test waits milliseconds.
const std::chrono::milliseconds generousWait(20000);

struct ProgramResult {
    int status = -1;  ///< exit status; -1 if the program did not exit normally
    std::string out;
    std::string err;
};

/// Runs `program` with `arguments` to its end, standard input closed.
ProgramResult runProgram(const std::string& program, const std::vector<std::string>& arguments);

/// A program running beside the test, its standard output read through a
/// pipe and its standard error appended to a file. Killed at the end.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments, const std::string& errorFile);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Reads standard output until it holds `text`, the process ends or the
    /// wait runs out; gives whether it does.
    bool readUntil(const std::string& text, std::chrono::milliseconds limit = generousWait);
    void signal(int number);
    /// Waits for the end; gives the exit status, -1 after a signal.
    int wait();
    const std::string& outputSoFar() const { return read; }

private:
    pid_t pid = -1;
    int output = -1;
    int exitStatus = -1;
    std::string read;
};

}  // namespace testkit
}  // namespace zarvo

#endif
