// The tethrix-service program as scripts and other tests run it.
#include "service_client.h"
#include "test_database.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tethrix::service {
namespace {

std::string programPath()
{
    const char* binary = std::getenv("ZARVO_BINARY_DIR");
    return std::string(binary ? binary : ".") + "/bin/tethrix-service";
}

/// A child process with its standard output and error read through pipes.
class Program {
public:
    explicit Program(const std::vector<std::string>& arguments)
    {
        int out[2];
        int err[2];
        if (pipe(out) != 0 || pipe(err) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        posix_spawn_file_actions_addclose(&actions, err[0]);
        std::vector<std::string> all = {programPath()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& a : all) argv.push_back(a.data());
        argv.push_back(nullptr);
        int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        outFd = out[0];
        errFd = err[0];
        if (spawned != 0) throw std::runtime_error("cannot start " + all[0]);
    }

    ~Program()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(outFd);
        close(errFd);
    }

    /// The first line on standard output, waiting at most the test timeout.
    std::string readLine()
    {
        std::string line;
        char c = 0;
        while (waitReadable(outFd) && read(outFd, &c, 1) == 1 && c != '\n') line += c;
        return line;
    }

    /// Everything on standard error up to its end.
    std::string readErrors()
    {
        std::string text;
        char chunk[4096];
        ssize_t n = 0;
        while (waitReadable(errFd) && (n = read(errFd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<std::size_t>(n));
        return text;
    }

    void signal(int number) { kill(pid, number); }

    /// The exit code, or -1 if the program died another way.
    int wait()
    {
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    static bool waitReadable(int fd)
    {
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, static_cast<int>(testing::receiveTimeout.count() * 1000)) == 1;
    }

    pid_t pid = -1;
    int outFd = -1;
    int errFd = -1;
};

class ProgramTest : public ::testing::Test {
protected:
    void SetUp() override { testing::createDatabase(database, testing::tracksScript(10)); }

    testing::TemporaryDirectory directory;
    std::filesystem::path database = directory.path() / "media.db";
};

TEST_F(ProgramTest, ServesOnAFreePortLogsQueriesAndStopsCleanlyOnSignals)
{
    for (int stopSignal : {SIGTERM, SIGINT}) {
        Program program({"--db", database.string(), "--port", "0", "--log-queries"});
        std::string line = program.readLine();
        ASSERT_EQ(line.rfind("listening on 127.0.0.1:", 0), 0u) << line;
        auto port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
        {
            testing::TestClient client(port);
            client.send(protocol::Query{7, "content://com.tavelorix.content/tracks", {"id", "title"}, "id>8", "", 0, 0});
            EXPECT_EQ(client.receiveAs<protocol::Result>().rows.size(), 2u);
        }
        program.signal(stopSignal);
        EXPECT_EQ(program.wait(), 0);
        // One line per query; only the time varies.
        std::string log = program.readErrors();
        const std::string fixed = "query id=7 uri=\"content://com.tavelorix.content/tracks\" columns=\"[id,title]\" "
                                  "filter=\"id>8\" sort=\"\" index=0 count=0 rows=2 ms=";
        ASSERT_EQ(log.substr(0, fixed.size()), fixed) << log;
        std::string time = log.substr(fixed.size());
        EXPECT_TRUE(time.size() >= 5 && time.back() == '\n' && time[time.size() - 4] == '.' &&
                    time.find_first_not_of("0123456789.\n") == std::string::npos)
            << time;
    }
}

TEST_F(ProgramTest, CannotStartSaysWhyInOneLine)
{
    std::ofstream(directory.path() / "not-a-database") << "plain text, long enough to be no SQLite header at all";
    std::ofstream(directory.path() / "radio.xml") << "<sources service='radio'>\n<string value='FM 4'/></sources>";
    std::ofstream(directory.path() / "radio.xml.ok") << "<sources service='radio'><string name='station'/></sources>";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "tethrix-service: --db FILE is required\n"},
        {{"--db", database.string(), "--frobnicate"}, "tethrix-service: unknown option \"--frobnicate\" (see --help)\n"},
        {{"--db", (directory.path() / "missing.db").string()},
         "tethrix-service: cannot open " + (directory.path() / "missing.db").string() + ": unable to open database file\n"},
        {{"--db", (directory.path() / "not-a-database").string()},
         "tethrix-service: cannot open " + (directory.path() / "not-a-database").string() + ": file is not a database\n"},
        {{"--db", database.string(), "--bind", "localhost:80"}, "tethrix-service: bad bind address \"localhost:80\"\n"},
        {{"--db", database.string(), "--runtime", (directory.path() / "radio.xml").string()},
         "tethrix-service: " + (directory.path() / "radio.xml").string() +
             ": servicedata://radio: line 2, <string>: a node needs a name\n"},
        {{"--db", database.string(), "--simulate", "player"},
         "tethrix-service: --simulate player: no runtime data \"player\" was loaded; give its tree with --runtime, "
         "e.g. examples/player.xml\n"},
        {{"--db", database.string(), "--runtime", (directory.path() / "radio.xml").string() + ".ok", "--simulate",
          "radio"},
         "tethrix-service: --simulate radio: the tree does not fit the player: update refused at the top: no node "
         "called \"state\"\n"},
    };
    for (const auto& [arguments, message] : cases) {
        Program program(arguments);
        EXPECT_EQ(program.readErrors(), message);
        EXPECT_EQ(program.wait(), 1);
    }
}

TEST_F(ProgramTest, APortInUseIsRefused)
{
    Program first({"--db", database.string()});
    std::string line = first.readLine();
    std::string port = line.substr(line.rfind(':') + 1);
    Program second({"--db", database.string(), "--port", port});
    EXPECT_EQ(second.readErrors().rfind("tethrix-service: cannot listen on 127.0.0.1:" + port + ": ", 0), 0u);
    EXPECT_EQ(second.wait(), 1);
}

TEST_F(ProgramTest, PublishTellsTheOutcomeInOneLineWithItsExitStatus)
{
    std::ofstream(directory.path() / "player.xml") << "<sources service='player'><integer name='volume'/></sources>";
    Program service({"--db", database.string(), "--runtime", (directory.path() / "player.xml").string()});
    const std::string line = service.readLine();
    const std::string url = "http://" + line.substr(line.rfind(' ') + 1);

    Program published({"publish", "--service", url, "player", R"({"values":{"volume":4}})"});
    EXPECT_EQ(published.readLine(), "published to servicedata://player (0 subscribers)");
    EXPECT_EQ(published.wait(), 0);

    Program refused({"publish", "--service", url, "player", R"({"values":{"volume":true}})"});
    EXPECT_EQ(refused.readErrors(),
              "tethrix-service publish: update refused at \"volume\": true is not an integer\n");
    EXPECT_EQ(refused.wait(), 1);
}

TEST_F(ProgramTest, HelpGoesToStandardOutput)
{
    Program program({"--help"});
    EXPECT_EQ(program.readLine(), "usage: tethrix-service --db FILE [options]");
    EXPECT_EQ(program.wait(), 0);
}

}  // namespace
}  // namespace tethrix::service
