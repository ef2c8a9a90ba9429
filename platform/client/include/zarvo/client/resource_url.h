// Resolution of resource URLs against a base, as a browser does it.
#ifndef ZARVO_CLIENT_RESOURCE_URL_H
#define ZARVO_CLIENT_RESOURCE_URL_H

#include <string>

namespace zarvo {
namespace client {

/// Whether `url` starts with a scheme ("http:", "file:", "content:"): a
/// letter, then letters, digits, '+', '-' or '.', then ':'.
bool hasUrlScheme(const std::string& url);

/// `reference` resolved against `base`: unchanged if it has a scheme, if it
/// is empty, or if `base` has no scheme. Otherwise "//host/x" takes the
/// base's scheme, "/x" its scheme and authority, "?q" and "#f" its path, and a
/// relative path replaces the base's last segment; "." and ".." segments are
/// then removed. So "img/a.png" against "http://h/files/" gives
/// "http://h/files/img/a.png", but against "http://h/files" gives
/// "http://h/img/a.png".
std::string resolveUrl(const std::string& base, const std::string& reference);

}  // namespace client
}  // namespace zarvo

#endif
