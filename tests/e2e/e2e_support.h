// What the end-to-end tests share: a directory of their own, the service on
// a thread of the test or as a process of its own, and waiting with a
// deadline.
#ifndef ZARVO_TESTS_E2E_E2E_SUPPORT_H
#define ZARVO_TESTS_E2E_E2E_SUPPORT_H

#include "../apps/run_program.h"

#include "service.h"
#include "sqlite_database.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zarvo {
namespace test {

/// Only a fault takes this long; a passing test waits milliseconds.
const std::chrono::milliseconds GENEROUS_WAIT(20000);

/// A directory for one test, named after it, removed at the end.
class TestDirectory {
public:
    TestDirectory() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path = std::filesystem::temp_directory_path() /
               ("zarvo-e2e-" + std::to_string(::getpid()) + "-" + info->test_suite_name() + "-" + info->name());
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }
    ~TestDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;

    std::string file(const std::string& name) const { return (path / name).string(); }

    std::filesystem::path path;
};

/// Runs SQL on the database at `path`, making it if need be.
inline void executeSql(const std::string& path, const std::string& sql) {
    tethrix::service::SqliteDatabase::openReadWrite(path).execute(sql);
}

/// The service on a thread of this process.
class ServiceRunner {
public:
    explicit ServiceRunner(const std::string& database, unsigned short port = 0) {
        tethrix::service::ServiceOptions options;
        options.database = database;
        options.files = std::filesystem::path(database).parent_path();
        options.port = port;
        running = std::make_unique<tethrix::service::Service>(options);
        boundPort = running->endpoint().port();
        thread = std::thread([this] { running->run(); });
    }
    ~ServiceRunner() {
        running->stop();
        thread.join();
    }
    ServiceRunner(const ServiceRunner&) = delete;
    ServiceRunner& operator=(const ServiceRunner&) = delete;

    unsigned short port() const { return boundPort; }
    std::string url() const { return "ws://127.0.0.1:" + std::to_string(boundPort) + "/tethrix"; }

private:
    std::unique_ptr<tethrix::service::Service> running;
    unsigned short boundPort = 0;
    std::thread thread;
};

/// A program run as a process of its own, its standard output read through a
/// pipe and its standard error written to a file.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& errorFile) {
        int pipeEnds[2];
        if (pipe(pipeEnds) != 0) {
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipeEnds[1]);
        output = pipeEnds[0];
        if (spawned != 0) {
            close(output);
            throw std::runtime_error("cannot start " + program);
        }
    }
    ~ChildProcess() {
        signal(SIGKILL);
        wait();
        close(output);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Reads standard output until it holds `text` or the process ends or
    /// the wait runs out; gives whether it does.
    bool readUntil(const std::string& text, std::chrono::milliseconds limit = GENEROUS_WAIT) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (read.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                    std::chrono::steady_clock::now());
            pollfd descriptor{output, POLLIN, 0};
            if (left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
                return false;
            }
            char buffer[4096];
            const ssize_t got = ::read(output, buffer, sizeof(buffer));
            if (got <= 0) {
                return read.find(text) != std::string::npos;
            }
            read.append(buffer, static_cast<std::size_t>(got));
        }
        return true;
    }

    void signal(int number) {
        if (pid > 0) {
            ::kill(pid, number);
        }
    }
    /// Waits for the end; gives the exit status, -1 after a signal.
    int wait() {
        if (pid > 0) {
            int status = 0;
            waitpid(pid, &status, 0);
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            pid = -1;
        }
        return exitStatus;
    }

    const std::string& outputSoFar() const { return read; }

private:
    pid_t pid = -1;
    int output = -1;
    int exitStatus = -1;
    std::string read;
};

/// tethrix-service as a process of its own, so that it can be killed as a
/// crash would end it. Its query log lines go to `logFile`.
class ServiceProcess {
public:
    ServiceProcess(const std::string& database, const std::string& logFile, unsigned short port = 0)
        : process(builtFile("bin/tethrix-service"),
                  {"--db", database, "--port", std::to_string(port), "--log-queries"}, logFile) {
        if (!process.readUntil("\n")) {
            throw std::runtime_error("tethrix-service did not start");
        }
        const std::string& line = process.outputSoFar();
        boundPort = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
    }

    unsigned short port() const { return boundPort; }
    std::string url() const { return "127.0.0.1:" + std::to_string(boundPort); }
    /// Ends the service at once, without closing its connections.
    void kill() {
        process.signal(SIGKILL);
        process.wait();
    }

private:
    ChildProcess process;
    unsigned short boundPort = 0;
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace test
}  // namespace zarvo

#endif
