// What the runtime data builder and the internalizer agree on; the formats
// themselves are described in docs/runtime-data.md.
#ifndef ZARVO_CLIENT_RUNTIME_DATA_FORMAT_H
#define ZARVO_CLIENT_RUNTIME_DATA_FORMAT_H

#include <string>

namespace zarvo {
namespace client {

inline constexpr const char* runtimeDataLogCategory = "tethrix-client";

/// The name of a row that neither its XML nor its list's template names.
inline constexpr const char* defaultRowName = "row";

/// Names are joined with '.' in binding paths and update paths, so a name
/// with a '.' could never be reached; an empty one could not be told apart.
inline bool isReachableName(const std::string& name) {
    return !name.empty() && name.find('.') == std::string::npos;
}

}  // namespace client
}  // namespace zarvo

#endif
