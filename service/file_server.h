// Serves the files under one directory over HTTP, for the image loader.
// Only paths inside the directory are served: dot-dot segments, NUL bytes
// and symbolic links that lead outside are refused, and names that begin
// with a dot (.git, .env and the like) are not there.
#ifndef TETHRIX_SERVICE_FILE_SERVER_H
#define TETHRIX_SERVICE_FILE_SERVER_H

#include <boost/beast/http.hpp>

#include <boost/beast/core/file.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
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

    /// What to send for a request: the header, and the file to send after
    /// it when there is a body. Touches the disk: call it off the network
    /// thread.
    struct Reply {
        explicit Reply(http::message_generator head) : head(std::move(head)) {}
        http::message_generator head;
        std::shared_ptr<boost::beast::file> file;  ///< open, at its start; null without body
        std::uint64_t size = 0;
    };
    Reply respond(const HttpRequest& request) const;

private:
    std::optional<std::filesystem::path> root;  ///< canonical
};

/// The Content-Type for a file name, by its extension.
std::string_view contentTypeFor(const std::filesystem::path& file);

/// A short plain-text response, e.g. for 404.
http::message_generator textResponse(const HttpRequest& request, http::status status, std::string_view text);

}  // namespace tethrix::service

#endif
