#include "file_server.h"

#include <tethrix/protocol/value_text.h>

#include <algorithm>
#include <cctype>
#include <map>

namespace tethrix::service {

namespace fs = std::filesystem;

namespace {

constexpr const char* serverName = "tethrix-service";

std::optional<std::string> percentDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size())
            return std::nullopt;
        int high = protocol::hexDigitValue(text[i + 1]);
        int low = protocol::hexDigitValue(text[i + 2]);
        if (high < 0 || low < 0)
            return std::nullopt;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

/// Whether `path` lies within `directory`, both canonical.
bool isWithin(const fs::path& path, const fs::path& directory) {
    auto [end, rest] = std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
    (void)rest;
    return end == directory.end();
}

}  // namespace

FileServer::FileServer(std::optional<fs::path> directory) {
    if (directory)
        root = fs::canonical(*directory);
}

FileServer::Resolution FileServer::resolve(std::string_view target) const {
    target = target.substr(0, target.find_first_of("?#"));
    auto decoded = percentDecode(target);
    if (!decoded || decoded->empty() || decoded->front() != '/')
        return {http::status::bad_request, {}};
    if (decoded->find('\0') != std::string::npos)
        return {http::status::forbidden, {}};

    fs::path relative;
    std::size_t start = 1;
    while (start <= decoded->size()) {
        std::size_t end = std::min(decoded->find('/', start), decoded->size());
        std::string segment = decoded->substr(start, end - start);
        start = end + 1;
        if (segment == "..")
            return {http::status::forbidden, {}};
        if (segment.empty() || segment == ".")
            continue;
        if (segment.front() == '.')
            return {http::status::not_found, {}};
        relative /= segment;
    }
    if (!root || relative.empty())
        return {http::status::not_found, {}};

    std::error_code error;
    fs::path file = fs::canonical(*root / relative, error);
    if (error)
        return {http::status::not_found, {}};
    // A symbolic link inside the directory may point anywhere.
    if (!isWithin(file, *root))
        return {http::status::forbidden, {}};
    for (const auto& part : file.lexically_relative(*root)) {
        if (part.native().front() == '.')
            return {http::status::not_found, {}};
    }
    if (!fs::is_regular_file(file, error))
        return {http::status::not_found, {}};
    return {http::status::ok, file};
}

http::message_generator textResponse(const HttpRequest& request, http::status status, std::string_view text) {
    http::response<http::string_body> response(status, request.version());
    response.set(http::field::server, serverName);
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    if (status == http::status::method_not_allowed)
        response.set(http::field::allow, "GET, HEAD");
    response.keep_alive(request.keep_alive());
    if (request.method() != http::verb::head)
        response.body() = std::string(text) + "\n";
    response.prepare_payload();
    if (request.method() == http::verb::head)
        response.content_length(text.size() + 1);
    return response;
}

FileServer::Reply FileServer::respond(const HttpRequest& request) const {
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        return Reply(textResponse(request, http::status::method_not_allowed, "method not allowed"));
    }
    Resolution resolution = resolve(request.target());
    if (resolution.status != http::status::ok) {
        return Reply(textResponse(request, resolution.status, http::obsolete_reason(resolution.status)));
    }
    boost::beast::error_code error;
    auto file = std::make_shared<boost::beast::file>();
    file->open(resolution.file.c_str(), boost::beast::file_mode::scan, error);
    std::uint64_t size = error ? 0 : file->size(error);
    if (error)
        return Reply(textResponse(request, http::status::not_found, "not found"));

    // The header only; the body follows it piece by piece (HttpSession).
    http::response<http::empty_body> response(http::status::ok, request.version());
    response.set(http::field::server, serverName);
    response.set(http::field::content_type, contentTypeFor(resolution.file));
    response.content_length(size);
    response.keep_alive(request.keep_alive());
    Reply reply{http::message_generator(std::move(response))};
    reply.size = size;
    if (request.method() != http::verb::head && size != 0)
        reply.file = std::move(file);
    return reply;
}

std::string_view contentTypeFor(const fs::path& file) {
    static const std::map<std::string, std::string_view> types = {
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
        {".jpeg", "image/jpeg"},
        {".gif", "image/gif"},
        {".webp", "image/webp"},
        {".svg", "image/svg+xml"},
        {".json", "application/json"},
        {".xml", "application/xml"},
        {".txt", "text/plain; charset=utf-8"},
        {".html", "text/html; charset=utf-8"},
        {".css", "text/css"},
        {".js", "text/javascript"},
    };
    std::string extension = file.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    auto found = types.find(extension);
    return found == types.end() ? std::string_view("application/octet-stream") : found->second;
}

}  // namespace tethrix::service
