// What the runtime data builder and the internalizer agree on; the formats
// themselves are read by the shared code of protocol/ and described in
// docs/runtime-data.md.
#ifndef ZARVO_CLIENT_RUNTIME_DATA_FORMAT_H
#define ZARVO_CLIENT_RUNTIME_DATA_FORMAT_H

namespace zarvo {
namespace client {

inline constexpr const char* runtimeDataLogCategory = "tethrix-client";

}  // namespace client
}  // namespace zarvo

#endif
