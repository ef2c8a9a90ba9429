// What the runtime data builder and the internalizer agree on; the formats
// themselves are read by the shared code of protocol/ and described in
// docs/runtime-data.md.
#ifndef ZARVO_CLIENT_RUNTIME_DATA_FORMAT_H
#define ZARVO_CLIENT_RUNTIME_DATA_FORMAT_H

namespace zarvo {
namespace client {

inline constexpr const char* runtimeDataLogCategory = "tethrix-client";

/// Marks, on the loop's thread, the delivery of the first update of a
/// runtime data subscription: the state. While one is alive, every value
/// that RuntimeDataInternalizer::internalize sets fires its handlers, also
/// where it equals the value the node held, so that whoever binds to the
/// tree hears of each value once, whatever the tree held before (the first
/// values of a configuration, or what an earlier subscription left).
/// Scopes nest; an inner one with `state` false ends the marking for its
/// own extent.
class RuntimeStateScope {
public:
    explicit RuntimeStateScope(bool state);
    ~RuntimeStateScope();
    RuntimeStateScope(const RuntimeStateScope&) = delete;
    RuntimeStateScope& operator=(const RuntimeStateScope&) = delete;

    /// Whether the innermost scope marks a state.
    static bool active();

private:
    bool outer;
};

}  // namespace client
}  // namespace zarvo

#endif
