// What a call throws, as a value a test can compare, in place of a
// try/ADD_FAILURE/catch block around each call of a table of bad inputs.
#ifndef ZARVO_TESTKIT_THROWN_H
#define ZARVO_TESTKIT_THROWN_H

#include <optional>
#include <string>

namespace zarvo {
namespace testkit {

/// The `Error` that `action` throws, or nothing if it returns.
template <typename Error, typename Action>
std::optional<Error> thrown(Action&& action) {
    try {
        action();
    } catch (const Error& error) {
        return error;
    }
    return std::nullopt;
}

/// The message of the `Error` that `action` throws, or "(nothing thrown)".
template <typename Error, typename Action>
std::string thrownMessage(Action&& action) {
    const std::optional<Error> error = thrown<Error>(action);
    return error ? std::string(error->what()) : std::string("(nothing thrown)");
}

}  // namespace testkit
}  // namespace zarvo

#endif
