// Serves the files under one directory over HTTP, for the image loader.
// Only paths inside the directory are served: dot-dot segments, NUL bytes
// and symbolic links that lead outside are refused.
#ifndef TETHRIX_SERVICE_FILE_SERVER_H
#define TETHRIX_SERVICE_FILE_SERVER_H

#include <boost/beast/http.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tethrix::service {

namespace http = boost::beast::http;

using HttpRequest = http::request<http::string_body>;

class FileServer {
public:
    /// Without a root every file is missing.
    explicit FileServer(std::optional<std::filesystem::path> root);

    bool hasRoot() const { return root.has_value(); }

    struct Resolution {
        http::status status = http::status::ok;
        std::filesystem::path file;  ///< set for status ok
    };
    /// Maps a request target such as "/covers/a%20b.png?x" to a file.
    Resolution resolve(std::string_view target) const;

    http::message_generator respond(const HttpRequest& request) const;

private:
    std::optional<std::filesystem::path> root;  ///< canonical
};

/// The Content-Type for a file name, by its extension.
std::string_view contentTypeFor(const std::filesystem::path& file);

/// A short plain-text response, e.g. for 404.
http::message_generator textResponse(const HttpRequest& request, http::status status, std::string_view text);

}  // namespace tethrix::service

#endif
