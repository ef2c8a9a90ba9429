// Real HTTP and HTTPS servers on 127.0.0.1 for the image loading tests:
// Python's http.server as child processes, serving the files of a temporary
// folder. A file "<name>.status" beside "<name>" sets the answer's status; a
// missing file gets a 404 with an HTML page. The HTTPS server uses a
// self-signed certificate made when the servers start.
#ifndef ZARVO_TESTKIT_IMAGE_SERVER_H
#define ZARVO_TESTKIT_IMAGE_SERVER_H

#include <curl/curl.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace zarvo {
namespace testkit {

namespace detail {

// The server leaves when its standard input closes, which is when the test
// process ends, however it ends.
inline const char* const imageServerScript = R"PY(
import http.server, os, ssl, sys, threading

root = sys.argv[1]

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        path = os.path.join(root, os.path.basename(self.path.split("?")[0]))
        try:
            with open(path, "rb") as f:
                body = f.read()
            status, kind = 200, "application/octet-stream"
            if os.path.exists(path + ".status"):
                with open(path + ".status") as f:
                    status = int(f.read())
        except OSError:
            status, kind = 404, "text/html"
            body = b"<html><body><h1>404 Not Found</h1></body></html>"
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass

server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
if len(sys.argv) > 3:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[2], sys.argv[3])
    server.socket = context.wrap_socket(server.socket, server_side=True)

def leave_with_parent():
    sys.stdin.buffer.read()
    os._exit(0)

threading.Thread(target=leave_with_parent, daemon=True).start()
print(server.server_address[1], flush=True)
server.serve_forever()
)PY";

class ServerProcess {
public:
    explicit ServerProcess(std::vector<std::string> arguments) {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        stdinOfChild = input[1];
        if (spawned != 0) {
            close(output[0]);
            pid = -1;
            stop();
            throw std::runtime_error("cannot start " + arguments[0]);
        }
        std::string line;
        char c = 0;
        while (read(output[0], &c, 1) == 1 && c != '\n') {
            line += c;
        }
        close(output[0]);
        port = std::atoi(line.c_str());
        if (port <= 0) {
            stop();
            throw std::runtime_error("the image server did not start");
        }
    }

    ~ServerProcess() { stop(); }

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    int port = 0;

private:
    void stop() {
        if (stdinOfChild >= 0) {
            close(stdinOfChild);
            stdinOfChild = -1;
        }
        if (pid > 0) {
            int status = 0;
            waitpid(pid, &status, 0);
            pid = -1;
        }
    }

    pid_t pid = -1;
    int stdinOfChild = -1;
};

}  // namespace detail

class ImageServers {
public:
    ImageServers()
        : folder(makeFolder()),
          certificateMade(makeCertificate(folder)),
          http({"python3", "-c", detail::imageServerScript, folder.string()}),
          https({"python3", "-c", detail::imageServerScript, folder.string(), (folder / "cert.pem").string(),
                 (folder / "key.pem").string()}) {
        // Once per process, before loader threads use libcurl.
        curl_global_init(CURL_GLOBAL_DEFAULT);
        closedSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        // Bound but never listening: connecting to it is refused.
        if (bind(closedSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            getsockname(closedSocket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot reserve a port");
        }
        closedPort = ntohs(address.sin_port);
    }

    ~ImageServers() {
        close(closedSocket);
        curl_global_cleanup();
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    /// Serves `body` as `name`, with `status` if not 0.
    void put(const std::string& name, const std::string& body, int status = 0) {
        std::ofstream(folder / name, std::ios::binary) << body;
        if (status != 0) {
            std::ofstream(folder / (name + ".status")) << status;
        }
    }

    std::string httpUrl(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(http.port) + "/" + name;
    }
    std::string httpsUrl(const std::string& name) const {
        return "https://127.0.0.1:" + std::to_string(https.port) + "/" + name;
    }
    /// A URL on a port where nothing listens.
    std::string refusedUrl(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(closedPort) + "/" + name;
    }

private:
    static std::filesystem::path makeFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zarvo-images-XXXXXX").string();
        if (mkdtemp(&pattern[0]) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        return pattern;
    }

    static bool makeCertificate(const std::filesystem::path& folder) {
        const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -days 1 -keyout '" +
                                    (folder / "key.pem").string() + "' -out '" + (folder / "cert.pem").string() +
                                    "' >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("openssl could not make a certificate");
        }
        return true;
    }

    std::filesystem::path folder;
    bool certificateMade;
    detail::ServerProcess http;
    detail::ServerProcess https;
    int closedSocket = -1;
    int closedPort = 0;
};

/// The servers of this test process, started at first use.
inline ImageServers& imageServers() {
    static ImageServers servers;
    return servers;
}

}  // namespace testkit
}  // namespace zarvo

#endif
