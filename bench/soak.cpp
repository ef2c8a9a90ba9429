// soak: a data source through a long day, against a real tethrix-service.
//
//   1. A list of a million rows scrolls while the service is killed and
//      started again at random moments; after each return the connection
//      flag is true again and the rows shown fill with the right values.
//   2. A master-detail list of runtime data goes through thousands of key
//      changes; after each, its rows show the records of the new keys.
//   3. The data source is reloaded a thousand times, as the engine reloads a
//      resource; after each, the list shows its first rows again.
//
// The host's resident memory after the first round of restarts is compared
// with what it holds at the end. scripts/soak builds this program, makes the
// database and runs it; the last line says PASS or FAIL.

#include <zarvo/host/list_view.h>
#include "host_session.h"

#include "publish_command.h"

#include <zarvo/message_dispatcher.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char* const usageText = R"(usage: soak --service-program PATH --db FILE --runtime FILE [options]

Runs one data source through service restarts, master-detail key changes and
reloads against tethrix-service, and checks what it shows after each.

  --service-program PATH  the tethrix-service program (required)
  --db FILE               database with the tables lines(id, label) and
                          albums(id, title) (required; scripts/soak makes it)
  --runtime FILE          runtime tree "soak" with the string "recent"
                          (required; scripts/soak makes it)
  --rows N                rows of the table lines (default 1000000)
  --restarts N            service restarts while scrolling (default 100)
  --key-changes N         master-detail key changes (default 10000)
  --albums N              rows of the table albums (default 50)
  --reloads N             reloads of the data source (default 1000)
  --seed N                seed of the random moments (default 1)
  --help                  this text
)";

const char* const declarationXml = R"(<sources>
  <lines uri="com.tavelorix.content/lines" type="list" sort="id"><field name="label" type="string"/></lines>
  <dynamic_source uri="com.tavelorix.content/albums" name="albums"><field name="title" type="string"/></dynamic_source>
  <soak uri="servicedata://soak"><string name="recent" dynamic_source="albums" lookup_column="id"/></soak>
</sources>)";

struct Options {
    std::string serviceProgram;
    std::string database;
    std::string runtime;
    std::uint64_t rows = 1000000;
    unsigned restarts = 100;
    unsigned keyChanges = 10000;
    unsigned albums = 50;
    unsigned reloads = 1000;
    unsigned seed = 1;
};

/// Nothing that works takes this long; only a fault does.
const milliseconds longestWait(20000);

std::uint64_t residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stoull(line.substr(6));
        }
    }
    return 0;
}

/// tethrix-service as a child process, started on a given port (0: a free
/// one) and killed as a crash would end it.
class Service {
public:
    Service(const Options& options, unsigned short port) {
        int pipeEnds[2];
        if (pipe(pipeEnds) != 0) {
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
        std::vector<std::string> arguments = {options.serviceProgram, "--db",   options.database,    "--runtime",
                                              options.runtime,        "--port", std::to_string(port)};
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipeEnds[1]);
        if (spawned != 0) {
            close(pipeEnds[0]);
            throw std::runtime_error("cannot start " + options.serviceProgram);
        }
        // "listening on ADDRESS:PORT"
        std::string line;
        char c = 0;
        pollfd descriptor{pipeEnds[0], POLLIN, 0};
        while (line.find('\n') == std::string::npos && poll(&descriptor, 1, 10000) > 0 &&
               read(pipeEnds[0], &c, 1) == 1) {
            line += c;
        }
        close(pipeEnds[0]);
        if (line.find("listening on") == std::string::npos) {
            kill();
            throw std::runtime_error("tethrix-service did not start on port " + std::to_string(port));
        }
        boundPort = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
    }
    ~Service() { kill(); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    void kill() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            pid = -1;
        }
    }
    unsigned short port() const { return boundPort; }

private:
    pid_t pid = -1;
    unsigned short boundPort = 0;
};

std::string textOf(const std::shared_ptr<zarvo::DataObject>& row, const std::string& field) {
    auto text = row ? std::dynamic_pointer_cast<zarvo::DataObjectString>(row->findChild(field)) : nullptr;
    return text ? text->getValue() : std::string();
}

class Soak {
public:
    explicit Soak(const Options& options)
        : options(options),
          random(options.seed),
          service(std::make_unique<Service>(options, 0)) {
        zarvo::host::SourceOptions source;
        source.declaration = declarationXml;
        source.serviceUrl = "127.0.0.1:" + std::to_string(service->port());
        source.wait = longestWait;
        session = std::make_unique<zarvo::host::HostSession>(source);
        session->settle();
    }

    int run() {
        const auto started = Clock::now();
        std::uint64_t firstRound = 0;
        const bool restarted = scrollThroughRestarts([&] { firstRound = residentKiB(); });
        const std::uint64_t afterRestarts = residentKiB();
        const bool changed = restarted && changeKeys();
        const bool reloaded = changed && reload();
        const std::uint64_t atEnd = residentKiB();
        const double growth = firstRound ? 100.0 * (double(atEnd) - double(firstRound)) / double(firstRound) : 0;
        const bool lean = firstRound != 0 && atEnd <= firstRound + firstRound / 10;
        const bool passed = restarted && changed && reloaded && lean;
        std::cout << std::fixed << std::setprecision(1) << "soak: " << restarts << " restarts (longest return "
                  << longestReturnMs << " ms), " << keyChanges << " key changes, " << reloads << " reloads in "
                  << std::chrono::duration<double>(Clock::now() - started).count() << " s; host resident "
                  << firstRound / 1024.0 << " MiB after the first round, " << afterRestarts / 1024.0
                  << " MiB after the restarts, " << atEnd / 1024.0 << " MiB at the end (" << std::showpos << growth
                  << std::noshowpos << "%): " << (passed ? "PASS" : "FAIL") << "\n";
        return passed ? 0 : 1;
    }

private:
    bool fail(const std::string& what) {
        std::cerr << "soak: " << what << "\n";
        return false;
    }

    std::shared_ptr<zarvo::DataObjectList> list(const std::string& path) {
        auto found = std::dynamic_pointer_cast<zarvo::DataObjectList>(session->source().lookupDataContext(path));
        if (!found) {
            throw std::runtime_error("the source has no list " + path);
        }
        return found;
    }

    bool connected() {
        auto flag =
            std::dynamic_pointer_cast<zarvo::DataObjectBoolean>(session->source().lookupDataContext("connected"));
        return flag && flag->getValue();
    }

    /// Every row of the window holds its label ("row N" for row N).
    bool windowRight(zarvo::ListView& view) {
        if (view.isStale()) {
            view.refresh();
        }
        if (view.rows().size() != view.size()) {
            return false;
        }
        for (const auto& row : view.rows()) {
            if (textOf(row.second, "label") != "row " + std::to_string(row.first)) {
                return false;
            }
        }
        return true;
    }

    bool scrollThroughRestarts(const std::function<void()>& afterFirstRound) {
        zarvo::ListView view(list("lines"));
        const std::uint64_t window = 20;
        // A step that crosses block boundaries at odd places, sized so that
        // the restarts spread over the whole table.
        const std::uint64_t frames = std::max<std::uint64_t>(options.restarts * 50, 1000);
        const std::uint64_t step = std::max<std::uint64_t>((options.rows - window) / frames, 1) | 1;
        std::uniform_int_distribution<unsigned> framesBetween(1, 79);
        std::uniform_int_distribution<unsigned> downMs(0, 300);
        unsigned nextKill = framesBetween(random);
        std::uint64_t first = 0;
        for (;;) {
            view.moveTo(first, window);
            if (nextKill-- == 0 && restarts < options.restarts) {
                if (!restart(view, downMs(random))) {
                    return false;
                }
                nextKill = framesBetween(random);
                if (restarts == std::max(options.restarts / 10, 1u)) {
                    afterFirstRound();
                }
            } else if (!session->loop().runUntil([&] { return windowRight(view); }, longestWait)) {
                return fail("rows " + std::to_string(first) + " to " + std::to_string(first + window) +
                            " did not fill while the service ran");
            }
            if (first + window >= options.rows) {
                break;
            }
            // As a screen scrolls: only as far as the list knows rows, and at
            // its end it waits for the list to grow by its read-ahead.
            if (!session->loop().runUntil([&] { return view.list().itemCount() > first + window; }, longestWait)) {
                return fail("the list stopped growing at " + std::to_string(view.list().itemCount()) +
                            " rows, short of " + std::to_string(options.rows));
            }
            first = std::min({first + step, view.list().itemCount() - window, options.rows - window});
        }
        if (restarts < options.restarts) {
            return fail("the table ended after " + std::to_string(restarts) + " restarts");
        }
        return true;
    }

    /// Kills the service, lets the view wait `downMs` without it, starts it
    /// again on the same port and waits for the flag and the rows.
    bool restart(zarvo::ListView& view, unsigned downMs) {
        const unsigned short port = service->port();
        service->kill();
        session->loop().runUntil([] { return false; }, milliseconds(downMs));
        service = std::make_unique<Service>(options, port);
        const auto back = Clock::now();
        ++restarts;
        if (!session->loop().runUntil([&] { return connected() && windowRight(view); }, longestWait)) {
            return fail("after restart " + std::to_string(restarts) +
                        (connected() ? "" : " the flag stayed false and") + " rows " + std::to_string(view.first()) +
                        " to " + std::to_string(view.first() + view.size()) + " did not fill with their labels");
        }
        longestReturnMs =
            std::max(longestReturnMs, std::chrono::duration<double, std::milli>(Clock::now() - back).count());
        return true;
    }

    bool changeKeys() {
        zarvo::ListView view(list("recent"));
        std::uniform_int_distribution<unsigned> album(1, options.albums);
        tethrix::service::PublishRequest request{"127.0.0.1", std::to_string(service->port()), "soak", ""};
        for (keyChanges = 0; keyChanges < options.keyChanges; ++keyChanges) {
            const std::vector<unsigned> keys = {album(random), album(random), album(random)};
            request.text = R"({"values": {"recent": ")" + std::to_string(keys[0]) + ";" + std::to_string(keys[1]) +
                           ";" + std::to_string(keys[2]) + "\"}}";
            const tethrix::service::PublishReply reply = tethrix::service::postUpdate(request);
            if (reply.status != 200) {
                return fail("publishing keys failed: " + reply.body);
            }
            const auto right = [&] {
                view.moveTo(0, keys.size());
                if (view.rows().size() != keys.size()) {
                    return false;
                }
                for (std::size_t i = 0; i < keys.size(); ++i) {
                    if (textOf(view.rows().at(i), "title") != "album " + std::to_string(keys[i])) {
                        return false;
                    }
                }
                return true;
            };
            if (!session->loop().runUntil(right, longestWait)) {
                return fail("after key change " + std::to_string(keyChanges + 1) + " the list did not show albums " +
                            request.text);
            }
        }
        return true;
    }

    bool reload() {
        zarvo::DataSource& source = session->source();
        for (reloads = 0; reloads < options.reloads; ++reloads) {
            source.unloadOverride();
            source.loadFromZVB(nullptr, nullptr, nullptr);
            zarvo::ListView view(list("lines"));
            if (!session->loop().runUntil(
                    [&] {
                        view.moveTo(0, 20);
                        return windowRight(view);
                    },
                    longestWait)) {
                return fail("after reload " + std::to_string(reloads + 1) + " the first rows did not fill");
            }
        }
        return true;
    }

    Options options;
    std::mt19937 random;
    std::unique_ptr<Service> service;
    std::unique_ptr<zarvo::host::HostSession> session;
    unsigned restarts = 0;
    unsigned keyChanges = 0;
    unsigned reloads = 0;
    double longestReturnMs = 0;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            std::cout << usageText;
            std::exit(0);
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument(argument + " needs a value (try --help)");
        }
        const std::string value = argv[++i];
        if (argument == "--service-program") {
            options.serviceProgram = value;
        } else if (argument == "--db") {
            options.database = value;
        } else if (argument == "--runtime") {
            options.runtime = value;
        } else if (argument == "--rows") {
            options.rows = std::stoull(value);
        } else if (argument == "--restarts") {
            options.restarts = static_cast<unsigned>(std::stoul(value));
        } else if (argument == "--key-changes") {
            options.keyChanges = static_cast<unsigned>(std::stoul(value));
        } else if (argument == "--albums") {
            options.albums = static_cast<unsigned>(std::stoul(value));
        } else if (argument == "--reloads") {
            options.reloads = static_cast<unsigned>(std::stoul(value));
        } else if (argument == "--seed") {
            options.seed = static_cast<unsigned>(std::stoul(value));
        } else {
            throw std::invalid_argument("unknown option " + argument + " (try --help)");
        }
    }
    if (options.serviceProgram.empty() || options.database.empty() || options.runtime.empty()) {
        throw std::invalid_argument("--service-program, --db and --runtime are required (try --help)");
    }
    if (options.rows < 100 || options.albums == 0) {
        throw std::invalid_argument("--rows takes at least 100 and --albums at least 1");
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "soak: " << error.what() << "\n";
        return 2;
    }
    try {
        Soak soak(options);
        return soak.run();
    } catch (const std::exception& error) {
        std::cerr << "soak: " << error.what() << "\n";
        return 1;
    }
}
