// Runtime data over plain HTTP, beside the files: POST /runtime/<name> with
// update text publishes it to the tree <name> and its subscribers; GET (or
// HEAD) /runtime/<name> gives the tree's current state as update text.
#ifndef TETHRIX_SERVICE_RUNTIME_ENDPOINT_H
#define TETHRIX_SERVICE_RUNTIME_ENDPOINT_H

#include "file_server.h"
#include "runtime_data.h"

#include <string_view>

namespace tethrix::service {

/// Paths below this belong to runtime data, not to files.
constexpr std::string_view runtimePathPrefix = "/runtime/";

/// Whether `path` (without query) is one of runtime data.
bool isRuntimePath(std::string_view path);

http::message_generator respondRuntime(const HttpRequest& request, std::string_view path, RuntimeData& runtimeData);

}  // namespace tethrix::service

#endif
