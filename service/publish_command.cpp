#include "publish_command.h"

#include "runtime_endpoint.h"

#include <tethrix/protocol/messages.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace tethrix::service {

namespace beast = boost::beast;
namespace http = beast::http;
using tcp = boost::asio::ip::tcp;

namespace {

constexpr std::chrono::seconds exchangeTimeout{10};

[[noreturn]] void refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

/// "http://HOST:PORT/...", "ws://HOST:PORT/...", "HOST:PORT" or
/// "[v6]:PORT": the host and port, whatever the path.
void readServiceUrl(std::string url, PublishRequest& request) {
    for (const char* scheme : {"http://", "ws://"}) {
        if (url.rfind(scheme, 0) == 0)
            url = url.substr(std::string(scheme).size());
    }
    url = url.substr(0, url.find('/'));
    const auto colon = url.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == url.size()) {
        refuse("--service needs HOST:PORT, e.g. http://127.0.0.1:8080, not \"" + url + "\"");
    }
    request.host = url.substr(0, colon);
    if (request.host.size() > 2 && request.host.front() == '[' && request.host.back() == ']') {
        request.host = request.host.substr(1, request.host.size() - 2);
    }
    request.port = url.substr(colon + 1);
}

std::string readText(const std::string& argument) {
    if (argument.empty() || argument[0] != '@')
        return argument;
    const std::string path = argument.substr(1);
    if (path == "-")
        return std::string(std::istreambuf_iterator<char>(std::cin), {});
    std::ifstream file(path, std::ios::binary);
    if (!file)
        refuse("cannot read \"" + path + "\"");
    return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

PublishRequest parsePublishCommand(const std::vector<std::string>& arguments) {
    PublishRequest request;
    std::optional<std::string> service;
    std::vector<std::string> positional;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--service") {
            if (i + 1 >= arguments.size())
                refuse("--service needs a value");
            service = arguments[++i];
        } else if (argument.rfind("--service=", 0) == 0) {
            service = argument.substr(10);
        } else if (argument.size() > 1 && argument[0] == '-' && argument != "-") {
            refuse("unknown option \"" + argument + "\"; " + publishUsage);
        } else {
            positional.push_back(argument);
        }
    }
    if (!service)
        refuse(std::string("--service URL is required; ") + publishUsage);
    if (positional.size() != 2)
        refuse(std::string("NAME and TEXT are required; ") + publishUsage);
    readServiceUrl(*service, request);
    request.name = positional[0];
    request.text = readText(positional[1]);
    if (request.text.size() > protocol::maxRequestFrameBytes) {
        refuse("the update is larger than " + std::to_string(protocol::maxRequestFrameBytes) + " bytes");
    }
    return request;
}

PublishReply postUpdate(const PublishRequest& request) {
    boost::asio::io_context io;
    beast::tcp_stream stream(io);
    const std::string where = request.host + ":" + request.port;
    try {
        tcp::resolver resolver(io);
        stream.expires_after(exchangeTimeout);
        stream.connect(resolver.resolve(request.host, request.port));
        http::request<http::string_body> post(http::verb::post, std::string(runtimePathPrefix) + request.name, 11);
        post.set(http::field::host, where);
        post.set(http::field::content_type, "application/json");
        post.body() = request.text;
        post.prepare_payload();
        http::write(stream, post);
        beast::flat_buffer buffer;
        http::response<http::string_body> response;
        http::read(stream, buffer, response);
        std::string body = response.body();
        while (!body.empty() && (body.back() == '\n' || body.back() == '\r'))
            body.pop_back();
        return {static_cast<int>(response.result_int()), body};
    } catch (const beast::system_error& error) {
        throw std::runtime_error("cannot publish to " + where + ": " + error.code().message());
    }
}

int runPublishCommand(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
    if (std::find(arguments.begin(), arguments.end(), "--help") != arguments.end()) {
        out << publishUsage << "\n";
        return 0;
    }
    try {
        const PublishReply reply = postUpdate(parsePublishCommand(arguments));
        if (reply.status == 200) {
            out << reply.body << "\n";
            return 0;
        }
        err << "tethrix-service publish: " << (reply.body.empty() ? "HTTP " + std::to_string(reply.status) : reply.body)
            << "\n";
    } catch (const std::exception& error) {
        err << "tethrix-service publish: " << error.what() << "\n";
    }
    return 1;
}

}  // namespace tethrix::service
