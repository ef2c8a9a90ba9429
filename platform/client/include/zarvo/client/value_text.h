// Values as text and back, the one rendering that results and runtime data
// share: integers in decimal, reals as the shortest text that reads back to
// the same number ("0.1", "1e+20", "nan", "-inf"), booleans as "1" and "0".
#ifndef ZARVO_CLIENT_VALUE_TEXT_H
#define ZARVO_CLIENT_VALUE_TEXT_H

#include <boost/any.hpp>

#include <string>

namespace zarvo {
namespace client {

std::string formatInteger(long long value);
std::string formatReal(double value);
/// Shortest for a float, so 0.1f gives "0.1" and not "0.10000000149011612".
std::string formatReal(float value);
inline std::string formatBoolean(bool value) {
    return value ? "1" : "0";
}

/// The text of a value of one of the result types (int, float, bool,
/// std::string), also double and the other integer types; empty for an empty
/// any and for any other type.
std::string formatAny(const boost::any& value);

/// Each parser takes the whole of `text` or nothing: on failure it returns
/// false and leaves `out` alone. No blanks are skipped.
/// Decimal, with an optional '-' or '+'; false beyond the range of int.
bool parseInteger(const std::string& text, int& out);
/// Decimal or exponent form, "inf", "nan", with an optional sign.
bool parseReal(const std::string& text, double& out);
/// "1", "0", "true", "false".
bool parseBoolean(const std::string& text, bool& out);

}  // namespace client
}  // namespace zarvo

#endif
