#include <zarvo/client/resource_url.h>

#include <cctype>
#include <vector>

namespace zarvo {
namespace client {

namespace {

struct UrlParts {
    std::string scheme;     // with its ':'
    std::string authority;  // with its "//", empty if none
    std::string path;
    std::string rest;  // query and fragment, with '?' or '#'
};

std::size_t schemeLength(const std::string& url) {
    if (url.empty() || !std::isalpha(static_cast<unsigned char>(url[0]))) {
        return 0;
    }
    for (std::size_t i = 1; i < url.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(url[i]);
        if (c == ':') {
            return i + 1;
        }
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') {
            return 0;
        }
    }
    return 0;
}

UrlParts split(const std::string& url) {
    UrlParts parts;
    std::size_t at = schemeLength(url);
    parts.scheme = url.substr(0, at);
    if (url.compare(at, 2, "//") == 0) {
        const std::size_t end = url.find_first_of("/?#", at + 2);
        parts.authority = url.substr(at, end - at);
        at = end == std::string::npos ? url.size() : end;
    }
    const std::size_t restAt = url.find_first_of("?#", at);
    parts.path = url.substr(at, restAt - at);
    if (restAt != std::string::npos) {
        parts.rest = url.substr(restAt);
    }
    return parts;
}

/// Drops "." segments and lets ".." take the segment before it away.
std::string removeDotSegments(const std::string& path) {
    std::vector<std::string> segments;
    std::size_t start = path.empty() || path[0] != '/' ? 0 : 1;
    bool endsInDirectory = false;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string segment = path.substr(start, end - start);
        endsInDirectory = segment == "." || segment == "..";
        if (segment == "..") {
            if (!segments.empty()) {
                segments.pop_back();
            }
        } else if (segment != ".") {
            segments.push_back(segment);
        }
        start = end + 1;
    }
    std::string out = !path.empty() && path[0] == '/' ? "/" : "";
    for (std::size_t i = 0; i < segments.size(); ++i) {
        out += (i == 0 ? "" : "/") + segments[i];
    }
    if (endsInDirectory && !segments.empty()) {
        out += '/';
    }
    return out;
}

std::string mergePaths(const UrlParts& base, const std::string& relative) {
    if (!base.authority.empty() && base.path.empty()) {
        return "/" + relative;
    }
    const std::size_t slash = base.path.rfind('/');
    if (slash == std::string::npos) {
        return relative;
    }
    return base.path.substr(0, slash + 1) + relative;
}

}  // namespace

bool hasUrlScheme(const std::string& url) {
    return schemeLength(url) != 0;
}

std::string resolveUrl(const std::string& base, const std::string& reference) {
    if (reference.empty() || hasUrlScheme(reference) || !hasUrlScheme(base)) {
        return reference;
    }
    const UrlParts from = split(base);
    if (reference.compare(0, 2, "//") == 0) {
        const UrlParts ref = split(reference);
        return from.scheme + ref.authority + removeDotSegments(ref.path) + ref.rest;
    }
    const UrlParts ref = split(reference);
    std::string path;
    if (ref.path.empty()) {
        path = from.path;
        const bool fragmentOnly = reference[0] == '#';
        const std::string baseQuery = from.rest.substr(0, from.rest.find('#'));
        return from.scheme + from.authority + path + (fragmentOnly ? baseQuery : "") + ref.rest;
    }
    path = ref.path[0] == '/' ? ref.path : mergePaths(from, ref.path);
    return from.scheme + from.authority + removeDotSegments(path) + ref.rest;
}

}  // namespace client
}  // namespace zarvo
