// Values as text and back, the one rendering that the runtime tree XML,
// its update text and both ends of the protocol share: integers in decimal,
// reals as the shortest text that reads back to the same number ("0.1",
// "1e+20", "nan", "-inf"), booleans as "1" and "0".
#ifndef TETHRIX_PROTOCOL_VALUE_TEXT_H
#define TETHRIX_PROTOCOL_VALUE_TEXT_H

#include <string>
#include <string_view>

namespace tethrix::protocol {

std::string formatInteger(long long value);
std::string formatReal(double value);
inline std::string formatBoolean(bool value) {
    return value ? "1" : "0";
}

/// Each parser takes the whole of `text` or nothing: on failure it returns
/// false and leaves `out` alone. No blanks are skipped.
/// Decimal, with an optional '-' or '+'; false beyond the range of int.
bool parseInteger(std::string_view text, int& out);
/// Decimal or exponent form, "inf", "nan", with an optional sign.
bool parseReal(std::string_view text, double& out);
/// "1", "0", "true", "false".
bool parseBoolean(std::string_view text, bool& out);

/// The value of a hexadecimal digit of either case, as in a percent-encoded
/// URL; -1 for any other character.
inline int hexDigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace tethrix::protocol

#endif
